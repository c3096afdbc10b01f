// Real transforms of every length against the definition in double, on every build that this
// processor runs.

#include "kernels/ipps.h"
#include "support/seed.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

namespace {

using Signal = std::vector<float>;
using Bins = std::vector<std::complex<double>>;

struct Build {
  const char* name;
  int index;
};
constexpr Build builds[] = {{"sse3", 0}, {"ssse3", 2}, {"sse3b", 3}, {"sse41", 4}, {"avx", 5}};

/// Every build once; the index is 0 again afterwards.
template <class Body>
void ForEachBuild(Body&& body) {
  for (const Build& build : builds) {
    if (build.index > ippBestVariantIndex()) continue;
    SCOPED_TRACE(build.name);
    ippVariantIndex = build.index;
    body();
  }
  ippVariantIndex = 0;
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
  int WorkSize() const { return static_cast<int>(work.size()) - 1; }

private:
  IppsDFTSpec_R_32f* spec = nullptr;
  std::vector<Ipp8u> work;
};

std::size_t SpectrumSize(int length) {
  return static_cast<std::size_t>(length % 2 == 0 ? length + 2 : length + 1);
}

Signal RandomSignal(int length, std::mt19937_64& random) {
  std::uniform_real_distribution<float> sample(-1.0f, 1.0f);
  Signal x(static_cast<std::size_t>(length));
  for (float& v : x)
    v = sample(random);
  return x;
}

/// X[k] by the definition, with the roots of one table in double.
class Definition {
public:
  explicit Definition(int length) : roots(static_cast<std::size_t>(length)) {
    for (std::size_t k = 0; k < roots.size(); ++k)
      roots[k] = std::polar(1.0, -2.0 * std::numbers::pi * static_cast<double>(k) /
                                     static_cast<double>(length));
  }
  /// exp(-2 pi i turn / N)
  std::complex<double> Root(std::size_t turn) const { return roots[turn % roots.size()]; }
  std::complex<double> Bin(const Signal& x, std::size_t k) const {
    std::complex<double> sum = 0;
    std::size_t turn = 0;
    for (float sample : x) {
      sum += static_cast<double>(sample) * roots[turn];
      turn += k;
      if (turn >= roots.size()) turn -= roots.size();
    }
    return sum;
  }

private:
  Bins roots;
};

/// Relative L2 error of a packed spectrum; infinite when a place that holds zero does not.
double SpectrumError(const Signal& packed, const Bins& expected, int length) {
  if (packed[1] != 0.0f || (length % 2 == 0 && packed.back() != 0.0f)) return INFINITY;
  double error = 0, norm = 0;
  for (std::size_t k = 0; k < expected.size(); ++k) {
    error += std::norm(std::complex<double>(packed[2 * k], packed[2 * k + 1]) - expected[k]);
    norm += std::norm(expected[k]);
  }
  return std::sqrt(error / norm);
}

double SignalError(const Signal& x, const Signal& expected) {
  double error = 0, norm = 0;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    error += std::pow(static_cast<double>(x[i]) - static_cast<double>(expected[i]), 2);
    norm += std::pow(static_cast<double>(expected[i]), 2);
  }
  return std::sqrt(error / norm);
}

/// Relative L2 error. Well planned lengths stay near 1e-7; long sums over a large prime go highest.
constexpr double tolerance = 5e-7;

/// What holds of every length: the inverse gives the samples back, nothing is written behind the
/// result, and one array for both sides gives the numbers of two. Leaves the spectrum of x.
void CheckRoundTrip(Plan& plan, const Signal& x, Signal& spectrum) {
  const int length = static_cast<int>(x.size());
  const std::size_t size = SpectrumSize(length);
  spectrum.assign(size + 1, -99.0f);
  plan.Forward(x.data(), spectrum.data());
  ASSERT_EQ(spectrum[size], -99.0f);
  spectrum.pop_back();

  Signal inPlace(size, -99.0f);
  std::copy(x.begin(), x.end(), inPlace.begin());
  plan.Forward(inPlace.data(), inPlace.data());
  ASSERT_EQ(inPlace, spectrum);

  // the imaginary parts of X[0] and X[N/2] are not read
  inPlace[1] = NAN;
  if (length % 2 == 0) inPlace[size - 1] = NAN;
  Signal back(x.size() + 1, -99.0f);
  plan.Inverse(inPlace.data(), back.data());
  ASSERT_EQ(back.back(), -99.0f);
  back.pop_back();
  ASSERT_LT(SignalError(back, x), tolerance);
  plan.Inverse(inPlace.data(), inPlace.data());
  inPlace.resize(x.size());
  ASSERT_EQ(inPlace, back);
}

TEST(Dft, EveryLengthTo2100AgreesWithTheDefinition) {
  std::mt19937_64 random(TestSupport::TestSeed());
  for (int length = 1; length <= 2100; ++length) {
    SCOPED_TRACE(length);
    const Signal x = RandomSignal(length, random);
    const Definition definition(length);
    Bins expected;
    for (std::size_t k = 0; k <= x.size() / 2; ++k)
      expected.push_back(definition.Bin(x, k));
    ForEachBuild([&] {
      Plan plan(length);
      Signal spectrum;
      CheckRoundTrip(plan, x, spectrum);
      ASSERT_LT(SpectrumError(spectrum, expected, length), tolerance);
    });
    if (HasFailure()) return;
  }
}

/// A few samples in silence and all their bins: columns of the transform's matrix.
struct Sparse {
  Sparse(int length, const Definition& definition, std::mt19937_64& random)
      : x(static_cast<std::size_t>(length)), expected(x.size() / 2 + 1) {
    for (const float value : {1.0f, -0.5f, 0.75f}) {
      const std::size_t place = random() % x.size();
      x[place] += value;
      for (std::size_t k = 0; k < expected.size(); ++k)
        expected[k] += static_cast<double>(value) * definition.Root(place * k);
    }
  }
  Signal x;
  Bins expected;
};

/// A few bins by the definition, the energy of all of them, all bins of a few samples, and the way
/// back.
void CheckLong(int length, std::mt19937_64& random) {
  const Signal x = RandomSignal(length, random);
  const Definition definition(length);
  std::vector<std::size_t> bins = {0, 1, x.size() / 2};
  for (int i = 0; i < 5; ++i)
    bins.push_back(random() % (x.size() / 2 + 1));
  Bins expected;
  for (std::size_t k : bins)
    expected.push_back(definition.Bin(x, k));
  double energy = 0;
  for (float v : x)
    energy += static_cast<double>(v) * static_cast<double>(v);
  const Sparse sparse(length, definition, random);

  ForEachBuild([&] {
    Plan plan(length);
    Signal spectrum;
    CheckRoundTrip(plan, x, spectrum);
    for (std::size_t i = 0; i < bins.size(); ++i) {
      const std::complex<double> bin(spectrum[2 * bins[i]], spectrum[2 * bins[i] + 1]);
      ASSERT_LT(std::abs(bin - expected[i]), 4 * tolerance * std::sqrt(energy * length / 2))
          << "bin " << bins[i];
    }
    double sum = 0;
    for (std::size_t i = 0; i < spectrum.size(); ++i) {
      const bool once = i == 0 || (length % 2 == 0 && i == x.size());
      sum += (once ? 1.0 : 2.0) * std::pow(static_cast<double>(spectrum[i]), 2);
    }
    ASSERT_NEAR(sum / length / energy, 1.0, tolerance);
    plan.Forward(sparse.x.data(), spectrum.data());
    ASSERT_LT(SpectrumError(spectrum, sparse.expected, length), tolerance);
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
  struct Row {
    int flag;
    bool forward, inverse, root;
  };
  const Row rows[] = {{IPP_FFT_DIV_FWD_BY_N, true, false, false},
                      {IPP_FFT_DIV_INV_BY_N, false, true, false},
                      {IPP_FFT_DIV_BY_SQRTN, true, true, true},
                      {IPP_FFT_NODIV_BY_ANY, false, false, false}};
  std::mt19937_64 random(TestSupport::TestSeed());
  // direct kernels, direct sums, FFT, mixed radix, real plan, convolution; odd and even
  for (int length : {1, 2, 3, 15, 16, 17, 30, 34, 64, 480, 441, 53, 106}) {
    const Signal x = RandomSignal(length, random);
    for (const Row& row : rows) {
      SCOPED_TRACE(testing::Message() << "length " << length << " flag " << row.flag);
      const double scale = row.root ? 1.0 / std::sqrt(length) : 1.0 / length;
      ForEachBuild([&] {
        Plan plan(length, row.flag);
        const Definition definition(length);
        Signal spectrum(SpectrumSize(length)), back(x.size());
        plan.Forward(x.data(), spectrum.data());
        Bins expected;
        for (std::size_t k = 0; k <= x.size() / 2; ++k)
          expected.push_back(definition.Bin(x, k) * (row.forward ? scale : 1.0));
        EXPECT_LT(SpectrumError(spectrum, expected, length), tolerance);
        plan.Inverse(spectrum.data(), back.data());
        const double gain = (row.forward ? scale : 1.0) * (row.inverse ? scale : 1.0) * length;
        for (float& v : back)
          v = static_cast<float>(v / gain);
        EXPECT_LT(SignalError(back, x), tolerance);
      });
    }
  }
}

TEST(Dft, WorkSizesFollowThePlan) {
  struct Row {
    int length, workSize;
  };
  const Row rows[] = {{1, 0},      {16, 0},     {20, 0},      {17, 100},      {34, 168},
                      {32, 0},     {51, 608},   {53, 2112},   {106, 2112},    {424, 3456},
                      {480, 1984}, {512, 2112}, {997, 32832}, {10007, 524352}};
  ForEachBuild([&] {
    for (const Row& row : rows)
      EXPECT_EQ(Plan(row.length).WorkSize(), row.workSize) << row.length;
  });
}

TEST(Dft, ShortTransformsAreExact) {
  Signal spectrum(4);
  Plan(1).Forward(Signal{3}.data(), spectrum.data());
  EXPECT_EQ((Signal{spectrum[0], spectrum[1]}), (Signal{3, 0}));
  Plan(2).Forward(Signal{3, 5}.data(), spectrum.data());
  EXPECT_EQ(spectrum, (Signal{8, 0, -2, 0}));
  Plan(3).Forward(Signal{1, 1, 1}.data(), spectrum.data());
  EXPECT_EQ(spectrum, (Signal{3, 0, 0, 0}));
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
