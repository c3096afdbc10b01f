#include "primitives/signal_primitives.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
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

/// What an operation reads, and what it writes or overwrites in place.
struct Arrays {
  alignas(64) float a[64];
  alignas(64) float b[64];
  alignas(64) float out[64];
};

struct Operation {
  const char* name;
  const char* call;  ///< of the kernel
  void (*run)(Arrays& x, std::size_t len);

  std::string Function() const { return std::string("SignalPrimitives::") + name; }
  std::string Expression() const { return std::string("(") + call + ") == ippStsNoErr"; }
};

const Operation operations[] = {
    {"Copy", "ippsCopy_32f(pSrc, pDst, IntFromSize(len))",
     [](Arrays& x, std::size_t len) { Signal::Copy(x.a, x.out, len); }},
    {"Deinterleave", "ippsDeinterleave_32f(pSrc, ch_num, len, pDst)",
     [](Arrays& x, std::size_t len) {
       float* const channels[] = {x.out, x.out + 8};
       Signal::Deinterleave(x.a, 2, static_cast<int>(len), channels);
     }},
    {"Interleave", "ippsInterleave_32f(pSrc, ch_num, len, pDst)",
     [](Arrays& x, std::size_t len) {
       const float* const channels[] = {x.a, x.b};
       Signal::Interleave(channels, 2, static_cast<int>(len), x.out);
     }},
    {"Add", "ippsAdd_32f(pSrc1, pSrc2, pDst, IntFromSize(len))",
     [](Arrays& x, std::size_t len) { Signal::Add(x.a, x.b, x.out, len); }},
    {"AddProductC", "ippsAddProductC_32f(pSrc, val, pSrcDst, IntFromSize(len))",
     [](Arrays& x, std::size_t len) { Signal::AddProductC(x.a, 0.75f, x.out, len); }},
    {"MulC", "ippsMulC_32f(pSrc, val, pDst, IntFromSize(len))",
     [](Arrays& x, std::size_t len) { Signal::MulC(x.a, 0.3f, x.out, len); }},
    {"Mul", "ippsMul_32f(pSrc1, pSrc2, pDst, IntFromSize(len))",
     [](Arrays& x, std::size_t len) { Signal::Mul(x.a, x.b, x.out, len); }},
    {"Mul_I", "ippsMul_32f_I(pSrc, pSrcDst, IntFromSize(len))",
     [](Arrays& x, std::size_t len) { Signal::Mul_I(x.a, x.out, len); }},
    {"Sqrt_I", "ippsSqrt_32f_I(pSrcDst, IntFromSize(len))",
     [](Arrays& x, std::size_t len) { Signal::Sqrt_I(x.out, len); }},
};

class SignalPrimitivesTest : public testing::Test {
protected:
  SignalPrimitivesTest() {
    reports.clear();
    for (std::size_t i = 0; i < 64; ++i)
      arrays.a[i] = arrays.b[i] = arrays.out[i] = static_cast<float>(i + 1);
  }

  std::vector<float> Out() const { return {std::begin(arrays.out), std::end(arrays.out)}; }

  Arrays arrays;
};

/// What a refused call looks like from outside: nothing written, one report in the exact words.
TEST_F(SignalPrimitivesTest, RefusedLengthsAreReportedAndNothingIsWritten) {
  const std::vector<float> before = Out();
  for (const Operation& operation : operations) {
    SCOPED_TRACE(operation.name);
    reports.clear();
    operation.run(arrays, 0);
    EXPECT_EQ(Out(), before);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].function, operation.Function());
    EXPECT_EQ(reports[0].expression, operation.Expression());
    EXPECT_TRUE(reports[0].file.ends_with("src/primitives/signal_primitives.cpp"));
    EXPECT_GT(reports[0].line, 0);
    EXPECT_EQ(reports[0].message, nullptr);
  }
}

TEST_F(SignalPrimitivesTest, WorkThatIsDoneIsNotReported) {
  for (const Operation& operation : operations) {
    operation.run(arrays, 8);
    EXPECT_TRUE(reports.empty()) << operation.name << ": " << reports[0].expression;
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
    reports.clear();
    Signal::Copy(arrays.a, arrays.out, row.len);
    ASSERT_EQ(reports.size(), 2u) << row.name;
    EXPECT_EQ(reports[0].expression, "len <= INT_MAX") << row.name;
    EXPECT_EQ(reports[1].function, "SignalPrimitives::Copy") << row.name;
    EXPECT_EQ(Out(), before) << row.name;
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
}

}  // namespace
