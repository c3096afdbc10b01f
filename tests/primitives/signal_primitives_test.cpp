#include "primitives/signal_primitives.h"

#include "support/seed.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace Signal = Orvik::Tesmo::SignalPrimitives;

namespace {

struct Report {
  std::string expression, file, function;
  std::int32_t line;
  const char* message;
};
std::vector<Report> reports;

}  // namespace

namespace Orvik::Tesmo::SignalPrimitives {
/// Takes the place of the library's empty hook in this program.
void ReportAssertionFailure(const char* expression, const char* file, std::int32_t line,
                            const char* function, const char* message) {
  reports.push_back({expression, file, function, line, message});
}
}  // namespace Orvik::Tesmo::SignalPrimitives

namespace {

constexpr float NaN = std::numeric_limits<float>::quiet_NaN();
constexpr float Infinity = std::numeric_limits<float>::infinity();

/// Three sources and a destination; what an operation overwrites in place is `out`.
struct Arrays {
  alignas(64) float a[64];
  alignas(64) float b[64];
  alignas(64) float out[64];
  float* channels[2] = {out, out + 32};
  const float* constChannels[2] = {a, a + 32};
};

/// One operation with its arguments chosen: `len` and which pointer, if any, is null.
struct Operation {
  const char* function;
  const char* expression;
  int pointers;
  bool is64Bit;
  std::function<void(Arrays&, std::size_t len, int nullPointer)> call;
  std::function<double(const Arrays& before, std::size_t i)> expected;  ///< out[i]
};

template <typename T>
T* Unless(bool isNull, T* pointer) {
  return isNull ? nullptr : pointer;
}

const std::vector<Operation>& Operations() {
  static const std::vector<Operation> operations = {
      {"SignalPrimitives::Copy", "(ippsCopy_32f(pSrc, pDst, IntFromSize(len))) == ippStsNoErr", 2,
       true,
       [](Arrays& x, std::size_t len, int null) {
         Signal::Copy(Unless(null == 0, x.a), Unless(null == 1, x.out), len);
       },
       [](const Arrays& x, std::size_t i) { return x.a[i]; }},
      {"SignalPrimitives::Deinterleave",
       "(ippsDeinterleave_32f(pSrc, ch_num, len, pDst)) == ippStsNoErr", 2, false,
       [](Arrays& x, std::size_t len, int null) {
         Signal::Deinterleave(Unless(null == 0, x.a), 2, static_cast<int>(len),
                              Unless(null == 1, x.channels));
       },
       [](const Arrays& x, std::size_t i) { return x.a[i * 2]; }},
      {"SignalPrimitives::Interleave",
       "(ippsInterleave_32f(pSrc, ch_num, len, pDst)) == ippStsNoErr", 2, false,
       [](Arrays& x, std::size_t len, int null) {
         Signal::Interleave(Unless(null == 0, x.constChannels), 2, static_cast<int>(len),
                            Unless(null == 1, x.out));
       },
       [](const Arrays& x, std::size_t i) { return x.a[i / 2 + 32 * (i % 2)]; }},
      {"SignalPrimitives::Add",
       "(ippsAdd_32f(pSrc1, pSrc2, pDst, IntFromSize(len))) == ippStsNoErr", 3, true,
       [](Arrays& x, std::size_t len, int null) {
         Signal::Add(Unless(null == 0, x.a), Unless(null == 1, x.b), Unless(null == 2, x.out), len);
       },
       [](const Arrays& x, std::size_t i) { return x.a[i] + double{x.b[i]}; }},
      {"SignalPrimitives::AddProductC",
       "(ippsAddProductC_32f(pSrc, val, pSrcDst, IntFromSize(len))) == ippStsNoErr", 2, true,
       [](Arrays& x, std::size_t len, int null) {
         Signal::AddProductC(Unless(null == 0, x.a), 0.75f, Unless(null == 1, x.out), len);
       },
       [](const Arrays& x, std::size_t i) { return x.out[i] + x.a[i] * 0.75; }},
      {"SignalPrimitives::MulC", "(ippsMulC_32f(pSrc, val, pDst, IntFromSize(len))) == ippStsNoErr",
       2, true,
       [](Arrays& x, std::size_t len, int null) {
         Signal::MulC(Unless(null == 0, x.a), 0.3f, Unless(null == 1, x.out), len);
       },
       [](const Arrays& x, std::size_t i) { return x.a[i] * double{0.3f}; }},
      {"SignalPrimitives::Mul",
       "(ippsMul_32f(pSrc1, pSrc2, pDst, IntFromSize(len))) == ippStsNoErr", 3, true,
       [](Arrays& x, std::size_t len, int null) {
         Signal::Mul(Unless(null == 0, x.a), Unless(null == 1, x.b), Unless(null == 2, x.out), len);
       },
       [](const Arrays& x, std::size_t i) { return x.a[i] * double{x.b[i]}; }},
      {"SignalPrimitives::Mul_I", "(ippsMul_32f_I(pSrc, pSrcDst, IntFromSize(len))) == ippStsNoErr",
       2, true,
       [](Arrays& x, std::size_t len, int null) {
         Signal::Mul_I(Unless(null == 0, x.a), Unless(null == 1, x.out), len);
       },
       [](const Arrays& x, std::size_t i) { return x.out[i] * double{x.a[i]}; }},
      {"SignalPrimitives::Sqrt_I", "(ippsSqrt_32f_I(pSrcDst, IntFromSize(len))) == ippStsNoErr", 1,
       true,
       [](Arrays& x, std::size_t len, int null) { Signal::Sqrt_I(Unless(null == 0, x.out), len); },
       [](const Arrays& x, std::size_t i) { return std::sqrt(double{x.out[i]}); }},
  };
  return operations;
}

class SignalPrimitivesTest : public testing::Test {
protected:
  SignalPrimitivesTest() : generator(TestSupport::TestSeed()) {
    reports.clear();
    std::uniform_real_distribution<float> value(0.01f, 2.0f);
    for (std::size_t i = 0; i < 64; ++i) {
      arrays.a[i] = value(generator);
      arrays.b[i] = value(generator);
      arrays.out[i] = value(generator);
    }
  }

  std::vector<float> Out() const { return {std::begin(arrays.out), std::end(arrays.out)}; }

  std::mt19937_64 generator;
  Arrays arrays;
};

TEST_F(SignalPrimitivesTest, EachOperationGivesItsFormulaAndLeavesTheRest) {
  for (const Operation& operation : Operations()) {
    // Deinterleave fills 7 of each channel, Interleave 7 frames of two, the others 7 samples.
    const std::size_t filled = std::string(operation.function).ends_with("::Interleave") ? 14 : 7;
    const Arrays before = arrays;
    operation.call(arrays, 7, -1);
    for (std::size_t i = 0; i < filled; ++i) {
      const double expected = operation.expected(before, i);
      EXPECT_NEAR(arrays.out[i], expected, 1.2e-7 * std::abs(expected) + 1e-9)
          << operation.function << " at " << i;
    }
    for (std::size_t i = filled; i < 32; ++i)
      EXPECT_EQ(arrays.out[i], before.out[i]) << operation.function << " wrote at " << i;
    EXPECT_TRUE(reports.empty()) << operation.function << ": " << reports[0].expression;
    reports.clear();
  }
}

TEST_F(SignalPrimitivesTest, DeinterleaveFillsEveryChannel) {
  Signal::Deinterleave(arrays.a, 2, 7, arrays.channels);
  for (std::size_t i = 0; i < 7; ++i)
    EXPECT_EQ(arrays.out[32 + i], arrays.a[2 * i + 1]) << i;
}

/// What a refused call looks like from outside: nothing written, one report in the exact words.
TEST_F(SignalPrimitivesTest, RefusedArgumentsAreReportedAndNothingIsWritten) {
  const std::vector<float> before = Out();
  for (const Operation& operation : Operations()) {
    for (int null = -1; null < operation.pointers; ++null) {
      const std::string row = std::string(operation.function) +
                              (null < 0 ? " of length 0" : " with null " + std::to_string(null));
      operation.call(arrays, null < 0 ? 0 : 7, null);
      EXPECT_EQ(Out(), before) << row;
      ASSERT_EQ(reports.size(), 1u) << row;
      EXPECT_EQ(reports[0].function, operation.function) << row;
      EXPECT_EQ(reports[0].expression, operation.expression) << row;
      EXPECT_TRUE(reports[0].file.ends_with("src/primitives/signal_primitives.cpp")) << row;
      EXPECT_GT(reports[0].line, 0) << row;
      EXPECT_EQ(reports[0].message, nullptr) << row;
      reports.clear();
    }
  }
}

TEST_F(SignalPrimitivesTest, LengthsAboveIntMaxAreReportedAndTruncated) {
  const std::size_t intMax = INT_MAX;
  const struct {
    const char* name;
    std::size_t len;
    std::int32_t given;
    bool isReported;
  } rows[] = {
      {"1", 1, 1, false},
      {"INT_MAX", intMax, INT_MAX, false},
      {"INT_MAX + 1", intMax + 1, INT_MIN, true},
      {"2^32", std::size_t{1} << 32, 0, true},
      {"2^32 + 5", (std::size_t{1} << 32) + 5, 5, true},
      {"all bits", ~std::size_t{0}, -1, true},
  };
  const std::vector<float> before = Out();
  for (const auto& row : rows) {
    reports.clear();
    EXPECT_EQ(Signal::IntFromSize(row.len), row.given) << row.name;
    EXPECT_EQ(reports.size(), row.isReported ? 1u : 0u) << row.name;
    if (!row.isReported || row.given > 0) continue;
    EXPECT_EQ(reports[0].expression, "len <= INT_MAX") << row.name;
    EXPECT_EQ(reports[0].function, "SignalPrimitives::IntFromSize") << row.name;
    // The kernel refuses what is left of such a length, so both reports come, in this order.
    for (const Operation& operation : Operations()) {
      if (!operation.is64Bit) continue;
      reports.clear();
      operation.call(arrays, row.len, -1);
      ASSERT_EQ(reports.size(), 2u) << operation.function << " of " << row.name;
      EXPECT_EQ(reports[0].expression, "len <= INT_MAX") << operation.function;
      EXPECT_EQ(reports[1].expression, operation.expression) << operation.function;
      EXPECT_EQ(Out(), before) << operation.function << " of " << row.name;
    }
  }
}

TEST_F(SignalPrimitivesTest, WarningsAreReportedAfterCompleteWork) {
  arrays.out[1] = -4.0f;
  arrays.out[2] = -0.0f;
  arrays.out[3] = 9.0f;
  Signal::Sqrt_I(arrays.out + 1, 3);
  EXPECT_TRUE(std::isnan(arrays.out[1]));
  EXPECT_TRUE(arrays.out[2] == 0.0f && std::signbit(arrays.out[2]));
  EXPECT_EQ(arrays.out[3], 3.0f);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].function, "SignalPrimitives::Sqrt_I");

  reports.clear();
  const float* misaligned[] = {arrays.a + 1, arrays.a + 32};
  Signal::Interleave(misaligned, 2, 5, arrays.out);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].function, "SignalPrimitives::Interleave");
  for (std::size_t i = 0; i < 10; ++i)
    EXPECT_EQ(arrays.out[i], misaligned[i % 2][i / 2]) << i;
}

TEST_F(SignalPrimitivesTest, ChannelCountsBelowOneAreRefused) {
  const std::vector<float> before = Out();
  for (const std::int32_t channels : {0, -1, INT_MIN}) {
    reports.clear();
    Signal::Interleave(arrays.constChannels, channels, 4, arrays.out);
    Signal::Deinterleave(arrays.a, channels, 4, arrays.channels);
    EXPECT_EQ(reports.size(), 2u) << channels;
    EXPECT_EQ(Out(), before) << channels;
  }
}

/// The gains 1 and 0 are exact whatever the signal holds.
TEST_F(SignalPrimitivesTest, UnityCopiesAndZeroClears) {
  const float hostile[] = {NaN, Infinity, -Infinity, -0.0f, 1e-40f, 3.4e38f, 1.0f};
  for (std::size_t i = 0; i < std::size(hostile); ++i)
    arrays.a[i] = hostile[i];
  Signal::MulC(arrays.a, 1.0f, arrays.out, std::size(hostile));
  EXPECT_EQ(std::memcmp(arrays.a, arrays.out, sizeof hostile), 0);
  for (const float zero : {0.0f, -0.0f}) {
    Signal::MulC(arrays.a, zero, arrays.out, std::size(hostile));
    for (std::size_t i = 0; i < std::size(hostile); ++i)
      EXPECT_EQ(arrays.out[i], 0.0f) << zero << " times " << hostile[i];
  }
  EXPECT_TRUE(reports.empty());
}

}  // namespace
