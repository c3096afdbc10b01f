// Plans of real transforms, as people are told them, and what the kernels need of every plan.

#include "kernels/dft/describe.h"
#include "kernels/dft/plan.h"
#include "kernels/ipps.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

using namespace Orvik::Tesmo::Kernels;

namespace {

using Runs = std::vector<std::vector<int>>;

TEST(DescribeTransform, ShowsMethodRunsAndSizes) {
  const char *const direct = "direct kernel", *const half = "direct kernel of half the length",
                    *const sum = "direct sum", *const mixed = "mixed radix",
                    *const real = "mixed radix, real", *const chirp = "chirp convolution";
  const struct {
    int length;
    const char* method;
    int points;
    Runs runs;
    int convLength, workSize;
  } rows[] = {
      {1, direct, 1, {}, 0, 0},
      {15, direct, 15, {}, 0, 0},
      {17, sum, 17, {}, 0, 100},
      {20, half, 10, {}, 0, 0},
      {34, sum, 17, {}, 0, 168},
      {36, mixed, 18, {{6, 3}}, 0, 208},
      {51, real, 51, {{17, 3}}, 0, 608},
      {53, chirp, 53, {{4, 8, 4}}, 128, 2112},
      {64, half, 32, {}, 0, 0},
      {106, chirp, 53, {{4, 8, 4}}, 128, 2112},
      {142, chirp, 71, {{16, 3, 3}}, 144, 2400},
      // the largest factor is 50, or 150 where a multiple of 4 is halved
      {159, chirp, 159, {{16, 4, 5}}, 320, 5216},
      {212, chirp, 106, {{4, 4, 4, 4}}, 256, 4160},
      {424, mixed, 212, {{4, 53}}, 0, 3456},
      {441, real, 441, {{7, 7, 3, 3}}, 0, 3592},
      {480, mixed, 240, {{16, 3, 5}}, 0, 1984},
      {512, "FFT, one buffer", 256, {{4, 4, 4, 4}}, 0, 2080},
      {997, chirp, 997, {{4, 8, 8, 8}}, 2048, 32832},
      {1764, mixed, 882, {{6, 7, 3, 7}}, 0, 7120},
      // A run ends where a block would become too long.
      {4000, mixed, 2000, {{16, 5, 5, 5}}, 0, 16064},
      {4768, mixed, 2384, {{16, 149}}, 0, 23904},
      {6000, mixed, 3000, {{8, 5, 5, 3}, {5}}, 0, 24064},
      {2 * 149 * 48, mixed, 7152, {{16, 3}, {149}}, 0, 62048},
      {10007, chirp, 10007, {{4, 4, 8, 8, 8, 4}}, 32768, 524352},
      {1 << 18, "FFT in pieces", 1 << 17, {{4, 8, 8, 8, 4}, {4, 4}}, 0, 65568},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.length);
    const auto description = DescribeTransform(row.length);
    ASSERT_TRUE(description.has_value());
    EXPECT_EQ(description->method, row.method);
    EXPECT_EQ(description->points, row.points);
    EXPECT_EQ(description->runs, row.runs);
    EXPECT_EQ(description->convLength, row.convLength);
    EXPECT_EQ(description->workSize, row.workSize);
  }
}

TEST(DescribeTransform, WorkSizesAreThoseOfTheSpecs) {
  for (int length = 1; length < 3000; length += 7) {
    IppsDFTSpec_R_32f* spec = nullptr;
    ASSERT_EQ(ippsDFTInitAlloc_R_32f(&spec, length, 2, 2), ippStsNoErr);
    int workSize = 0;
    ippsDFTGetBufSize_R_32f(spec, &workSize);
    ippsDFTFree_R_32f(spec);
    const bool fft = (length & (length - 1)) == 0 && workSize > 0;
    EXPECT_EQ(DescribeTransform(length)->workSize + (fft ? 32 : 0), workSize) << length;
  }
}

TEST(DescribeTransform, SaysNothingOfLengthsWithoutAPlan) {
  for (int length : {-1, 0, 134217729, 2147483647, 1 << 30, 67108879})
    EXPECT_FALSE(DescribeTransform(length).has_value()) << length;
}

// What the engine relies on, for every plan: factors multiply up, a bottom kernel of an even length
// is one of the even radices, and every stage but the bottom is odd or 4.
TEST(DftPlan, EveryFactorListFitsTheKernels) {
  for (int n = 17; n < LengthLimit; n += 1 + n / 30000) {
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
