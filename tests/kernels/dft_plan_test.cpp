#include "kernels/dft/plan.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

using namespace Orvik::Tesmo::Kernels;

namespace {

std::vector<int> Radices(const DftPlan& plan) {
  std::vector<int> radices(static_cast<std::size_t>(plan.stageCount));
  for (std::size_t i = 0; i < radices.size(); ++i)
    radices[i] = plan.stages[i].radix;
  return radices;
}

struct PlanRow {
  int length;
  DftKind kind;
  DftMethod method;
  std::vector<int> radices;
  int convLength;
  int workSize;
};

TEST(DftPlan, MethodAndRadicesFollowFromTheLength) {
  constexpr auto Real = DftKind::Real;
  constexpr auto Complex = DftKind::Complex;
  using enum DftMethod;
  const PlanRow rows[] = {
      {1, Real, DirectKernel, {}, 0, 0},
      {16, Real, DirectKernel, {}, 0, 0},
      {17, Real, DirectSum, {}, 0, 100},
      {20, Real, DirectKernel, {}, 0, 0},
      {32, Real, Fft, {}, 0, 0},
      {34, Real, DirectSum, {}, 0, 168},
      {36, Real, MixedRadix, {3, 6}, 0, 208},
      {51, Real, MixedRadix, {3, 17}, 0, 608},
      {53, Real, Convolution, {}, 128, 0},
      {100, Real, MixedRadix, {5, 5, 2}, 0, 464},
      {106, Real, Convolution, {}, 128, 0},
      {212, Real, Convolution, {}, 256, 0},
      {424, Real, MixedRadix, {53, 4}, 0, 3456},
      {441, Real, MixedRadix, {3, 3, 7, 7}, 0, 3592},
      {480, Real, MixedRadix, {5, 3, 16}, 0, 1984},
      {882, Real, MixedRadix, {3, 3, 7, 7}, 0, 3592},
      {997, Real, Convolution, {}, 2048, 0},
      {1000, Real, MixedRadix, {5, 5, 5, 4}, 0, 4064},
      {1200, Real, MixedRadix, {5, 3, 5, 8}, 0, 4864},
      {1764, Real, MixedRadix, {7, 3, 7, 6}, 0, 7120},
      {2809, Real, Convolution, {}, 6144, 0},
      {10007, Real, Convolution, {}, 32768, 0},
      {16, Complex, DirectKernel, {}, 0, 0},
      {17, Complex, DirectSum, {}, 0, 168},
      {128, Complex, Fft, {}, 0, 0},
      {144, Complex, MixedRadix, {3, 3, 16}, 0, 1216},
      {160, Complex, MixedRadix, {5, 4, 8}, 0, 1344},
      {4095, Complex, MixedRadix, {3, 3, 5, 7, 13}, 0, 32824},
      {6400, Complex, MixedRadix, {5, 4, 4, 5, 16}, 0, 51264},
  };
  for (const PlanRow& row : rows) {
    SCOPED_TRACE(testing::Message() << (row.kind == Real ? "real " : "complex ") << row.length);
    const DftPlan plan = PlanDft(row.length, row.kind);
    EXPECT_EQ(plan.method, row.method);
    EXPECT_EQ(Radices(plan), row.radices);
    EXPECT_EQ(plan.convLength, row.convLength);
    EXPECT_EQ(OwnWorkSize(plan, row.kind), row.workSize);
  }
}

TEST(DftPlan, RunsEndBehindBlocksAboveTheLimit) {
  struct Row {
    int length;
    std::vector<int> counts;
    int lastRun;
  };
  const Row rows[] = {
      {2000, {1, 5, 25, 125}, 0},    // 1,000 points: one run
      {4000, {1, 5, 25, 125}, 0},    // 2,000 points: still one
      {6000, {1, 1, 3, 15, 75}, 1},  // 3,000 points: 5 times a run of 600
      {4768, {1, 149}, 0},           // 149 x 16: a single table stage holds more than a block
      {2 * 149 * 48, {1, 1, 3}, 1},  // 149, 3, 16
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.length);
    const DftPlan plan = PlanDft(row.length, DftKind::Real);
    std::vector<int> counts(static_cast<std::size_t>(plan.stageCount));
    for (std::size_t i = 0; i < counts.size(); ++i)
      counts[i] = plan.stages[i].count;
    EXPECT_EQ(counts, row.counts);
    EXPECT_EQ(LastRunStart(plan), row.lastRun);
  }
}

// What the engine relies on, for every plan: factors multiply up, a bottom kernel of an even length
// is one of the even radices, and every stage but the bottom is odd or 4.
TEST(DftPlan, EveryFactorListFitsTheKernels) {
  for (int n = 17; n <= 30000; ++n) {
    const DftPlan plan = PlanDft(n, DftKind::Complex);
    if (plan.method != DftMethod::MixedRadix) continue;
    SCOPED_TRACE(n);
    int stride = 1;
    for (int i = 0; i < plan.stageCount; ++i) {
      const DftStage& stage = plan.stages[static_cast<std::size_t>(i)];
      ASSERT_EQ(stage.stride, stride);
      ASSERT_EQ(stage.stride * stage.radix * stage.remaining, n);
      ASSERT_TRUE(i == plan.stageCount - 1 || stage.radix % 2 == 1 || stage.radix == 4);
      ASSERT_LT(stage.radix, FactorLimitBy4);
      stride *= stage.radix;
    }
    ASSERT_EQ(stride, n);
    ASSERT_GE(plan.stageCount, 2);
    const int bottom = plan.stages[static_cast<std::size_t>(plan.stageCount) - 1].radix;
    const std::vector<int> allowed = n % 4 == 0   ? std::vector{4, 8, 16}
                                     : n % 2 == 0 ? std::vector{2, 6}
                                                  : std::vector{bottom | 1};
    ASSERT_NE(std::find(allowed.begin(), allowed.end(), bottom), allowed.end());
  }
}

TEST(DftPlan, DigitOrderReversesTheDigitsOfTheLastRun) {
  const DftPlan one = PlanDft(2 * 5 * 3 * 5 * 8, DftKind::Real);  // 5, 3, 5, 8
  std::vector<int> order(15);
  FillDigitOrder(one, order.data());
  EXPECT_EQ(order, (std::vector{0, 5, 10, 1, 6, 11, 2, 7, 12, 3, 8, 13, 4, 9, 14}));

  const DftPlan deep = PlanDft(6000, DftKind::Real);  // 5 | 3, 5, 5, 8
  order.resize(15);
  FillDigitOrder(deep, order.data());
  EXPECT_EQ(order, (std::vector{0, 3, 6, 9, 12, 1, 4, 7, 10, 13, 2, 5, 8, 11, 14}));
}

TEST(DftPlan, ConvolutionLengthsDoNotWrap) {
  for (int n = 51; n <= 40000; ++n) {
    const int length = ConvolutionLength(n);
    ASSERT_GE(length, 2 * n - 1);
    ASSERT_LE(length, n <= 64 ? 128 : 4 * n) << n;
    const DftMethod method = PlanDft(length, DftKind::Complex).method;
    ASSERT_TRUE(method == DftMethod::Fft || method == DftMethod::MixedRadix) << n;
  }
}

}  // namespace
