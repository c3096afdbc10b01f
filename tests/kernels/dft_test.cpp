// Real transforms of every length against the definition in double, on every build that this
// processor runs.

#include "kernels/transform_checks.h"

using namespace KernelTest;

namespace {

using Signal = std::vector<float>;

/// Every build once; the index is 0 again afterwards.
template <class Body>
void ForEachBuild(Body&& body) {
  for (const BuildUnderTest& build : Builds()) {
    SCOPED_TRACE(build.limits.name);
    const Selected selected(build);
    body();
  }
}

class Plan {
public:
  explicit Plan(int length, int flag = IPP_FFT_DIV_INV_BY_N) {
    EXPECT_EQ(ippsDFTInitAlloc_R_32f(&spec, length, flag, ippAlgHintAccurate), ippStsNoErr);
    int size = 0;
    EXPECT_EQ(ippsDFTGetBufSize_R_32f(spec, &size), ippStsNoErr);
    work.resize(static_cast<std::size_t>(size) + 1);
  }
  Plan(const Plan&) = delete;
  Plan& operator=(const Plan&) = delete;
  ~Plan() { EXPECT_EQ(ippsDFTFree_R_32f(spec), ippStsNoErr); }

  /// Through a work buffer that ends where it must and is aligned to nothing.
  void Forward(const float* src, float* dst) {
    EXPECT_EQ(ippsDFTFwd_RToCCS_32f(src, dst, spec, work.data() + 1), ippStsNoErr);
  }
  void Inverse(const float* src, float* dst) {
    EXPECT_EQ(ippsDFTInv_CCSToR_32f(src, dst, spec, work.data() + 1), ippStsNoErr);
  }

private:
  IppsDFTSpec_R_32f* spec = nullptr;
  std::vector<Ipp8u> work;
};

Signal RandomSignal(int length) {
  return Noise(static_cast<std::size_t>(length), static_cast<std::uint64_t>(length));
}

/// Relative L2 error. Well planned lengths stay near 1e-7; long sums over a large prime go highest.
constexpr double tolerance = 5e-7;

TEST(Dft, EveryLengthTo2100AgreesWithTheDefinition) {
  for (int length = 1; length <= 2100; ++length) {
    SCOPED_TRACE(length);
    const Signal x = RandomSignal(length);
    const std::vector<double> expected = Definition(x.size()).Spectrum(x);
    ForEachBuild([&] {
      Plan plan(length);
      Signal spectrum;
      CheckRoundTrip(plan, x, spectrum, tolerance);
      ASSERT_LT(RelativeError(spectrum, expected, expected.size()), tolerance);
    });
    if (HasFailure()) return;
  }
}

/// A few samples in silence and all their bins: columns of the transform's matrix.
struct Sparse {
  Sparse(std::size_t length, std::mt19937_64& random) : x(length), expected(SpectrumSize(length)) {
    for (const float value : {1.0f, -0.5f, 0.75f}) {
      const std::size_t place = random() % x.size();
      x[place] += value;
      for (std::size_t k = 0; k < expected.size() / 2; ++k) {
        const std::complex<double> bin = double{value} * Root(place * k, length);
        expected[2 * k] += bin.real();
        expected[2 * k + 1] += bin.imag();
      }
    }
  }
  Signal x;
  std::vector<double> expected;  ///< pairs of real and imaginary part
};

/// A few bins by the definition, all bins of a few samples, and the way back.
void CheckLong(int length, std::mt19937_64& random) {
  const Signal x = RandomSignal(length);
  const Definition definition(x.size());
  std::vector<std::size_t> bins = {0, 1, x.size() / 2};
  for (int i = 0; i < 5; ++i)
    bins.push_back(random() % (x.size() / 2 + 1));
  std::vector<std::complex<double>> expected(bins.size());
  std::ranges::transform(bins, expected.begin(),
                         [&](std::size_t k) { return definition.Bin(x, k); });
  double energy = 0;
  for (float v : x)
    energy += static_cast<double>(v) * static_cast<double>(v);
  const Sparse sparse(x.size(), random);

  ForEachBuild([&] {
    Plan plan(length);
    Signal spectrum;
    CheckRoundTrip(plan, x, spectrum, tolerance);
    for (std::size_t i = 0; i < bins.size(); ++i) {
      const std::complex<double> bin(spectrum[2 * bins[i]], spectrum[2 * bins[i] + 1]);
      ASSERT_LT(std::abs(bin - expected[i]), 4 * tolerance * std::sqrt(energy * length / 2))
          << "bin " << bins[i];
    }
    plan.Forward(sparse.x.data(), spectrum.data());
    ASSERT_LT(RelativeError(spectrum, sparse.expected, sparse.expected.size()), tolerance);
  });
}

TEST(Dft, RandomLengthsTo200000KeepTheirProperties) {
  std::mt19937_64 random(TestSupport::TestSeed());
  for (int i = 0; i < 200 && !HasFailure(); ++i) {
    // evenly over the magnitudes
    const double exponent = std::uniform_real_distribution<double>(11.0, 17.6)(random);
    const int length = std::min(static_cast<int>(std::exp2(exponent)), 200000);
    SCOPED_TRACE(length);
    CheckLong(length, random);
  }
}

TEST(Dft, PlansThatTurnAtALimitKeepTheirProperties) {
  struct Row {
    const char* name;
    int length;
  };
  const Row rows[] = {
      {"two runs", 6000},
      {"three runs", 2 * 13 * 13 * 13 * 16},
      {"one table stage above a block", 4768},
      {"last run of three transforms", 2 * 149 * 48},
      {"last factor 149 of a multiple of 4", 8 * 149},
      {"generic bottom", 47 * 47},
      {"generic bottom and stages, half length", 2 * 47 * 47},
      {"real plan in two runs", 3 * 3 * 5 * 7 * 13},
      {"real plan in three runs", 3 * 7 * 7 * 11 * 13 * 5},
      {"half length not a multiple of 4, two runs", 4 * 3 * 5 * 7 * 13},
      {"convolution beyond the table", 8209},
  };
  std::mt19937_64 random(TestSupport::TestSeed());
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CheckLong(row.length, random);
  }
}

TEST(Dft, FlagsScaleTheirDirection) {
  // direct kernels, direct sums, FFT, mixed radix, real plan, convolution; odd and even
  for (int length : {1, 2, 3, 15, 16, 17, 30, 34, 64, 480, 441, 53, 106}) {
    const Signal x = RandomSignal(length);
    for (const FlagScales& row : AllFlags(x.size())) {
      SCOPED_TRACE(testing::Message() << "length " << length << " flag " << row.flag);
      const std::vector<double> expected = Definition(x.size()).Spectrum(x, row.forward);
      ForEachBuild([&] {
        Plan plan(length, row.flag);
        Signal spectrum(SpectrumSize(x.size())), back(x.size());
        plan.Forward(x.data(), spectrum.data());
        EXPECT_LT(RelativeError(spectrum, expected, expected.size()), tolerance);
        plan.Inverse(spectrum.data(), back.data());
        for (float& v : back)
          v = static_cast<float>(v / (row.forward * row.inverse * length));
        EXPECT_LT(RelativeError(back, x, x.size()), tolerance);
      });
    }
  }
}

TEST(Dft, RefusesInOrderAndWritesNothing) {
  constexpr auto unset = [] { return reinterpret_cast<IppsDFTSpec_R_32f*>(16); };
  struct InitRow {
    const char* name;
    int length, flag;
    IppStatus status;
  };
  const InitRow rows[] = {
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
  ForEachBuild([&] {
    EXPECT_EQ(ippsDFTInitAlloc_R_32f(nullptr, 0, 3, 2), ippStsNullPtrErr);
    for (const InitRow& row : rows) {
      IppsDFTSpec_R_32f* spec = unset();
      EXPECT_EQ(ippsDFTInitAlloc_R_32f(&spec, row.length, row.flag, 2), row.status) << row.name;
      EXPECT_EQ(spec, unset()) << row.name;
    }

    IppsDFTSpec_R_32f* spec = nullptr;
    ASSERT_EQ(ippsDFTInitAlloc_R_32f(&spec, 480, 2, 0), ippStsNoErr);
    alignas(32) Ipp8u stale[1024] = {};  // a block with no id of a spec
    auto* none = reinterpret_cast<IppsDFTSpec_R_32f*>(stale);
    float x[482] = {}, y[482] = {7};
    int size = 7;
    EXPECT_EQ(ippsDFTFree_R_32f(nullptr), ippStsNullPtrErr);
    EXPECT_EQ(ippsDFTFree_R_32f(none), ippStsContextMatchErr);
    EXPECT_EQ(ippsDFTGetBufSize_R_32f(nullptr, &size), ippStsNullPtrErr);
    EXPECT_EQ(ippsDFTGetBufSize_R_32f(none, nullptr), ippStsNullPtrErr);
    EXPECT_EQ(ippsDFTGetBufSize_R_32f(none, &size), ippStsContextMatchErr);
    for (auto transform : {ippsDFTFwd_RToCCS_32f, ippsDFTInv_CCSToR_32f}) {
      EXPECT_EQ(transform(nullptr, y, nullptr, nullptr), ippStsNullPtrErr);
      EXPECT_EQ(transform(nullptr, y, none, nullptr), ippStsContextMatchErr);
      EXPECT_EQ(transform(nullptr, y, spec, nullptr), ippStsNullPtrErr);
      EXPECT_EQ(transform(x, nullptr, spec, nullptr), ippStsNullPtrErr);
    }
    EXPECT_EQ(size, 7);
    EXPECT_EQ(y[0], 7.0f);
    // without a work buffer a transform takes one for itself
    EXPECT_EQ(ippsDFTFwd_RToCCS_32f(x, y, spec, nullptr), ippStsNoErr);
    EXPECT_EQ(y[0], 0.0f);
    EXPECT_EQ(ippsDFTFree_R_32f(spec), ippStsNoErr);
  });
}

}  // namespace
