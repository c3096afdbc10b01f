// Transforms of every length against the definition in double, on every build that this processor
// runs.

#include "kernels/planned_transforms.h"
#include "kernels/random.h"
#include "kernels/vector_table.h"

#include <gtest/gtest.h>

using namespace KernelTest;

namespace {

/// With a flag at random.
void CheckLength(RandomInput& random, int length) {
  for (const Members& m : AllMembers()) {
    Input input = random.Next();
    EXPECT_NO_THROW({
      TransformCheck check(RealDft(m, length, input.Pick(flags)), input);
      check.Run(Signal::Noise);
      check.Run(Signal::Impulses);
    });
  }
}

TEST(Dft, EveryLengthTo2100IsTheDefinitionAndItsInverse) {
  RandomInput random;
  for (int length = 1; length <= AtMost(2100); ++length)
    CheckLength(random, length);
}

TEST(Dft, RandomLengthsTo200000AreTheDefinitionAndItsInverse) {
  RandomInput random;
  std::mt19937_64 engine(TestSupport::TestSeed());
  for (int i = 0; i < 200; ++i) {
    // evenly over the magnitudes
    const double exponent = std::uniform_real_distribution<double>(11.0, 17.6)(engine);
    CheckLength(random, std::min(static_cast<int>(std::exp2(exponent)), 200000));
  }
}

TEST(Dft, PlansAtTheirLimitsAreTheDefinitionAndItsInverse) {
  constexpr int lengths[] = {
      6000,                     // two runs
      2 * 13 * 13 * 13 * 16,    // three runs
      4768,                     // one table stage above a block
      2 * 149 * 48,             // last run of three transforms
      47 * 47,                  // generic bottom
      2 * 47 * 47,              // generic bottom and stages, half length
      3 * 3 * 5 * 7 * 13,       // real plan in two runs
      3 * 7 * 7 * 11 * 13 * 5,  // real plan in three runs
      4 * 3 * 5 * 7 * 13,       // half length not a multiple of 4, two runs
      8209,                     // convolution beyond the table
  };
  RandomInput random;
  for (const int length : lengths)
    CheckLength(random, length);
}

/// A scaled inverse has the bits of the unscaled one times the scale, of large and small values
/// too: what overflows or vanishes does so in both.
void CheckInverseScale(const Members& m, int length, const Transform::Run& unscaled,
                       const Transform::Run& scaled, float scale) {
  const auto N = static_cast<std::size_t>(length);
  for (const float magnitude : {1.0F, 1e37F, 1e-37F}) {
    std::vector<float> X = Noise(N + 2, N), expected(N), got(N);
    for (float& value : X)
      value = std::abs(value) * magnitude;
    unscaled(X.data(), expected.data(), nullptr);
    m.ippsMulC_32f_I(scale, expected.data(), length);
    scaled(X.data(), got.data(), nullptr);
    EXPECT_TRUE(std::ranges::equal(expected, got, Same))
        << m.name << ", " << N << " values, scale " << scale << ", magnitude " << magnitude;
    EXPECT_TRUE(magnitude < 1e37F || N < 128 || !std::isfinite(got[0])) << m.name << ", " << N;
  }
}

TEST(Dft, InverseScaleMultipliesTheResults) {
  std::vector<int> lengths = {441, 480, 882, 1000, 1920, 2018, 5460, 6000, 7152};
  for (int n = 1; n <= 130; ++n)
    lengths.push_back(n);
  for (int order = 8; order <= 20; ++order)
    lengths.push_back(1 << order);
  std::erase_if(lengths, [](int n) { return n > AtMost(1 << 20); });
  for (const Members& m : AllMembers()) {
    for (const int n : lengths) {
      const Transform unscaled = RealDft(m, n, 8);
      const auto byN = 1.0F / static_cast<float>(n);
      CheckInverseScale(m, n, unscaled.inverse, RealDft(m, n, 2).inverse, byN);
      if ((n & (n - 1)) == 0) continue;  // powers of two take the processor's estimate
      const auto byRoot = static_cast<float>(1 / std::sqrt(static_cast<double>(n)));
      CheckInverseScale(m, n, unscaled.inverse, RealDft(m, n, 4).inverse, byRoot);
    }
    for (int order = 0; order <= 7; ++order) {
      Input first(nullptr, 0);  // its choices are the first ones: a plan on the heap, two arrays
      CheckInverseScale(m, 1 << order, RealFft(m, first, order, 8).inverse,
                        RealFft(m, first, order, 2).inverse, 1.0F / static_cast<float>(1 << order));
    }
  }
}

TEST(Dft, RefusesInOrderAndWritesNothing) {
  constexpr auto unset = [] { return reinterpret_cast<IppsDFTSpec_R_32f*>(16); };
  const struct {
    const char* name;
    int length, flag;
    IppStatus status;
  } rows[] = {
      {"length 0", 0, 3, ippStsSizeErr},
      {"length below 0", -5, 2, ippStsSizeErr},
      {"flag 3", 480, 3, ippStsFftFlagErr},
      {"flag 0", 480, 0, ippStsFftFlagErr},
      {"flag before the limit on lengths", 134217729, 3, ippStsFftFlagErr},
      {"length 2^27 + 1", 134217729, 2, ippStsSizeErr},
      {"largest length", 2147483647, 2, ippStsSizeErr},
      {"a prime above 2^26", 67108879, 2, ippStsSizeErr},
      {"a power of two above 2^29", 1 << 30, 2, ippStsFftOrderErr},
  };
  for (const Members& m : AllMembers()) {
    EXPECT_EQ(m.ippsDFTInitAlloc_R_32f(nullptr, 0, 3, 2), ippStsNullPtrErr);
    for (const auto& row : rows) {
      IppsDFTSpec_R_32f* spec = unset();
      EXPECT_EQ(m.ippsDFTInitAlloc_R_32f(&spec, row.length, row.flag, 2), row.status) << row.name;
      EXPECT_EQ(spec, unset()) << row.name;
    }

    IppsDFTSpec_R_32f* spec = nullptr;
    ASSERT_EQ(m.ippsDFTInitAlloc_R_32f(&spec, 480, 2, 0), ippStsNoErr);
    alignas(32) Ipp8u stale[1024] = {};  // a block with no id of a spec
    auto* none = reinterpret_cast<IppsDFTSpec_R_32f*>(stale);
    float x[482] = {}, y[482] = {7};
    int size = 7;
    EXPECT_EQ(m.ippsDFTFree_R_32f(nullptr), ippStsNullPtrErr);
    EXPECT_EQ(m.ippsDFTFree_R_32f(none), ippStsContextMatchErr);
    EXPECT_EQ(m.ippsDFTGetBufSize_R_32f(nullptr, &size), ippStsNullPtrErr);
    EXPECT_EQ(m.ippsDFTGetBufSize_R_32f(none, nullptr), ippStsNullPtrErr);
    EXPECT_EQ(m.ippsDFTGetBufSize_R_32f(none, &size), ippStsContextMatchErr);
    for (auto transform : {m.ippsDFTFwd_RToCCS_32f, m.ippsDFTInv_CCSToR_32f}) {
      EXPECT_EQ(transform(nullptr, y, nullptr, nullptr), ippStsNullPtrErr);
      EXPECT_EQ(transform(nullptr, y, none, nullptr), ippStsContextMatchErr);
      EXPECT_EQ(transform(nullptr, y, spec, nullptr), ippStsNullPtrErr);
      EXPECT_EQ(transform(x, nullptr, spec, nullptr), ippStsNullPtrErr);
    }
    EXPECT_EQ(size, 7);
    EXPECT_EQ(y[0], 7.0f);
    EXPECT_EQ(m.ippsDFTFree_R_32f(spec), ippStsNoErr);
  }
}

}  // namespace
