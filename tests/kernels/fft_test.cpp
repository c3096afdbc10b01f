#include "kernels/fft_support.h"

#include "kernels/fft/planned_fft.h"

#include <limits>

using namespace KernelTest;

namespace {

constexpr int allFlags[] = {IPP_FFT_DIV_FWD_BY_N, IPP_FFT_DIV_INV_BY_N, IPP_FFT_DIV_BY_SQRTN,
                            IPP_FFT_NODIV_BY_ANY};
double ForwardScale(int flag, double N) {
  return flag == 1 ? 1 / N : flag == 4 ? 1 / std::sqrt(N) : 1;
}
double InverseScale(int flag, double N) {
  return flag == 2 ? 1 / N : flag == 4 ? 1 / std::sqrt(N) : 1;
}

/// The transform by its definition, CCS.
std::vector<double> Definition(const std::vector<float>& x) {
  const std::size_t N = x.size();
  std::vector<double> X(N + 2);
  for (std::size_t k = 0; k <= N / 2; ++k)
    for (std::size_t n = 0; n < N; ++n) {
      const double angle =
          -2 * std::numbers::pi * static_cast<double>(k * n % N) / static_cast<double>(N);
      X[2 * k] += x[n] * std::cos(angle);
      X[2 * k + 1] += x[n] * std::sin(angle);
    }
  return X;
}

std::vector<double> Scaled(std::vector<double> x, double factor) {
  for (double& v : x)
    v *= factor;
  return x;
}

TEST(Fft, IsTheDefinitionUnderEveryFlag) {
  for (int order = 0; order <= 10; ++order) {
    const std::size_t N = std::size_t{1} << order, bins = order == 0 ? 2 : N + 2;
    const std::vector<float> x = Noise(N, static_cast<std::uint64_t>(order));
    const std::vector<double> X = Definition(x);
    const std::vector<float> spectrum(X.begin(), X.end());
    const std::vector<double> samples(x.begin(), x.end());
    for (const auto& build : Builds())
      for (const int flag : allFlags) {
        SCOPED_TRACE(std::string(build.limits.name) + ", order " + std::to_string(order) +
                     ", flag " + std::to_string(flag));
        const Selected selected(build);
        RealFft fft(order, flag);
        ASSERT_EQ(ippStsNoErr, fft.status);
        std::vector<float> y(N + 2), z(N + 2);
        ASSERT_EQ(ippStsNoErr, fft.Forward(x.data(), y.data()));
        const double n = static_cast<double>(N);
        // 1/sqrt(N) is one Newton step from the processor's estimate.
        const double tolerance = Tolerance(order) + (flag == IPP_FFT_DIV_BY_SQRTN ? 2e-7 : 0.0);
        EXPECT_LT(RelativeError(y, Scaled(X, ForwardScale(flag, n)), bins), tolerance);
        EXPECT_EQ(0.0f, y[1]);
        EXPECT_EQ(0.0f, y[order == 0 ? 1 : N + 1]);
        ASSERT_EQ(ippStsNoErr, fft.Inverse(spectrum.data(), z.data()));
        EXPECT_LT(RelativeError(z, Scaled(samples, n * InverseScale(flag, n)), N), tolerance);
      }
  }
}

TEST(Fft, KeepsItsPropertiesUpToOrder22) {
  for (const auto& build : Builds())
    for (int order = 2; order <= 22; ++order)
      CheckProperties(build, order);
}

TEST(Fft, IsLinearAndTurnsShiftsIntoPhases) {
  constexpr int order = 9;
  constexpr std::size_t N = 1 << order, shift = 5;
  const std::vector<float> a = Noise(N, 1), b = Noise(N, 2);
  std::vector<float> sum(N), shifted(N), A(N + 2), B(N + 2), S(N + 2), T(N + 2);
  for (std::size_t n = 0; n < N; ++n) {
    sum[n] = 2 * a[n] - b[n];
    shifted[(n + shift) % N] = a[n];
  }
  for (const auto& build : Builds()) {
    SCOPED_TRACE(build.limits.name);
    const Selected selected(build);
    RealFft fft(order, IPP_FFT_DIV_INV_BY_N);
    fft.Forward(a.data(), A.data());
    fft.Forward(b.data(), B.data());
    fft.Forward(sum.data(), S.data());
    fft.Forward(shifted.data(), T.data());
    for (std::size_t k = 0; k <= N / 2; ++k) {
      const std::complex<double> turn =
          std::polar(1.0, -2 * std::numbers::pi * static_cast<double>(k * shift) / N);
      const std::complex<double> expected = turn * std::complex<double>(A[2 * k], A[2 * k + 1]);
      ASSERT_NEAR(2 * A[2 * k] - B[2 * k], S[2 * k], 1e-4) << k;
      ASSERT_NEAR(expected.real(), T[2 * k], 1e-4) << k;
      ASSERT_NEAR(expected.imag(), T[2 * k + 1], 1e-4) << k;
    }
  }
}

TEST(Fft, TouchesOnlyDestinationAndWorkBufferAtEveryAlignment) {
  for (const auto& build : Builds())
    for (int order = 0; order <= 21; ++order) {
      const std::size_t N = std::size_t{1} << order, bins = order == 0 ? 2 : N + 2;
      const Selected selected(build);
      RealFft fft(order, IPP_FFT_DIV_INV_BY_N);
      const std::vector<float> x = Noise(N, 3);
      std::vector<float> X(bins), back(N);
      fft.Forward(x.data(), X.data());
      fft.Inverse(X.data(), back.data());
      for (std::size_t offset = 0; offset < 32; offset += order <= 12 ? 1 : order <= 14 ? 5 : 13) {
        SCOPED_TRACE(std::string(build.limits.name) + ", order " + std::to_string(order) +
                     ", offset " + std::to_string(offset));
        Guarded<float> samples(x, offset), spectrum(bins, Scatter(offset, 0));
        Guarded<Ipp8u> work(fft.work.size() - 1, Scatter(offset, 1));
        ASSERT_EQ(ippStsNoErr,
                  ippsFFTFwd_RToCCS_32f(samples.data(), spectrum.data(), fft.spec, work.data()));
        ASSERT_EQ(x, samples.Values());
        ASSERT_EQ(X, spectrum.Values());
        ASSERT_EQ(ippStsNoErr,
                  ippsFFTInv_CCSToR_32f(spectrum.data(), samples.data(), fft.spec, work.data()));
        ASSERT_EQ(X, spectrum.Values());
        ASSERT_EQ(back, samples.Values());
        ASSERT_EQ(ippStsNoErr, ippsFFTInv_CCSToR_32f_I(spectrum.data(), fft.spec, work.data()));
        ASSERT_EQ(0, std::memcmp(spectrum.data(), back.data(), N * sizeof(float)));
        spectrum.Set(x);
        ASSERT_EQ(ippStsNoErr, ippsFFTFwd_RToCCS_32f_I(spectrum.data(), fft.spec, work.data()));
        ASSERT_EQ(X, spectrum.Values());
        ASSERT_TRUE(samples.Intact() && spectrum.Intact() && work.Intact());
      }
    }
}

TEST(Fft, TakesWhateverStandsInTheData) {
  constexpr float inf = std::numeric_limits<float>::infinity(),
                  nan = std::numeric_limits<float>::quiet_NaN();
  constexpr float tiny = std::numeric_limits<float>::denorm_min();
  struct Row {
    const char* name;
    float value, first, elsewhere;  // input everywhere; bin 0 and every other bin
  };
  for (const int order : {4, 6, 9, 12})
    for (const Row& row :
         {Row{"zeros", 0, 0, 0}, Row{"ones", 1, 1, 0}, Row{"denormals", tiny, tiny, 0},
          Row{"infinity", inf, inf, nan}, Row{"NaN", nan, nan, nan}})
      for (const auto& build : Builds()) {
        SCOPED_TRACE(std::string(row.name) + ", " + build.limits.name + ", order " +
                     std::to_string(order));
        const Selected selected(build);
        const std::size_t N = std::size_t{1} << order;
        RealFft fft(order, IPP_FFT_DIV_INV_BY_N);
        std::vector<float> x(N, row.value), X(N + 2, 5.0f);
        ASSERT_EQ(ippStsNoErr, fft.Forward(x.data(), X.data()));
        if (std::isfinite(row.value)) {
          EXPECT_FLOAT_EQ(row.first * static_cast<float>(N), X[0]);
          for (std::size_t i = 2; i < N; ++i)
            ASSERT_NEAR(row.elsewhere, X[i], 1e-4) << i;
        } else {
          EXPECT_FALSE(std::isfinite(X[0]));
          EXPECT_TRUE(std::isnan(X[4]));
        }
        // What stands beside the real ends of a spectrum is not read.
        X.assign(N + 2, 1.0f);
        X[1] = X[N + 1] = nan;
        ASSERT_EQ(ippStsNoErr, fft.Inverse(X.data(), x.data()));
        for (const float v : x)
          ASSERT_TRUE(std::isfinite(v));
      }
}

TEST(Fft, RefusesInTheOrderOfItsTests) {
  IppsFFTSpec_R_32f* unset = nullptr;
  int a = 0, b = 0, c = 0;
  const struct {
    const char* name;
    IppStatus expected, got;
  } rows[] = {
      {"size: order 31", ippStsFftOrderErr, ippsFFTGetSize_R_32f(31, 3, 0, nullptr, &b, &c)},
      {"size: order -1", ippStsFftOrderErr, ippsFFTGetSize_R_32f(-1, 2, 0, &a, &b, &c)},
      {"size: null before flag", ippStsNullPtrErr, ippsFFTGetSize_R_32f(30, 3, 0, &a, nullptr, &c)},
      {"size: flag before order 30", ippStsFftFlagErr, ippsFFTGetSize_R_32f(30, 3, 0, &a, &b, &c)},
      {"size: order 30", ippStsFftOrderErr, ippsFFTGetSize_R_32f(30, 2, 0, &a, &b, &c)},
      {"init: null", ippStsNullPtrErr, ippsFFTInitAlloc_R_32f(nullptr, 31, 3, 0)},
      {"init: order", ippStsFftOrderErr, ippsFFTInitAlloc_R_32f(&unset, 30, 2, 0)},
      {"init: flag 0", ippStsFftFlagErr, ippsFFTInitAlloc_R_32f(&unset, 9, 0, 0)},
      {"init: flag 6", ippStsFftFlagErr, ippsFFTInitAlloc_R_32f(&unset, 12, 6, 0)},
      {"free: null", ippStsNullPtrErr, ippsFFTFree_R_32f(nullptr)},
  };
  for (const auto& row : rows)
    EXPECT_EQ(row.expected, row.got) << row.name;
  EXPECT_EQ(nullptr, unset);

  for (const auto& build : Builds()) {
    const Selected selected(build);
    RealFft fft(9, 2);
    std::vector<float> x(514, 1.0f), y(514, 7.0f);
    const std::vector<float> untouched = y;
    IppsFFTSpec_R_32f stale = *fft.spec;
    stale.id = 0;
    struct Call {
      const char* name;
      IppStatus expected;
      const float* src;
      float* dst;
      const IppsFFTSpec_R_32f* spec;
    };
    for (const Call& call :
         {Call{"no spec", ippStsNullPtrErr, nullptr, y.data(), nullptr},
          Call{"stale before null", ippStsContextMatchErr, nullptr, nullptr, &stale},
          Call{"no source", ippStsNullPtrErr, nullptr, y.data(), fft.spec},
          Call{"no destination", ippStsNullPtrErr, x.data(), nullptr, fft.spec}}) {
      SCOPED_TRACE(std::string(call.name) + ", " + build.limits.name);
      EXPECT_EQ(call.expected, ippsFFTFwd_RToCCS_32f(call.src, call.dst, call.spec, nullptr));
      EXPECT_EQ(call.expected, ippsFFTInv_CCSToR_32f(call.src, call.dst, call.spec, nullptr));
      if (call.dst == nullptr || call.spec != fft.spec) {
        EXPECT_EQ(call.expected, ippsFFTFwd_RToCCS_32f_I(nullptr, call.spec, nullptr));
        EXPECT_EQ(call.expected, ippsFFTInv_CCSToR_32f_I(nullptr, call.spec, nullptr));
      }
      EXPECT_EQ(untouched, y);
    }
    EXPECT_EQ(ippStsContextMatchErr, ippsFFTFree_R_32f(&stale));
  }
}

TEST(Fft, MakesAWorkBufferOfItsOwnWhenGivenNone) {
  for (const auto& build : Builds()) {
    const Selected selected(build);
    RealFft fft(12, 2);
    const std::vector<float> x = Noise(4096, 4);
    std::vector<float> X(4098), Y(4098), z(4096);
    fft.Forward(x.data(), X.data());
    ASSERT_EQ(ippStsNoErr, ippsFFTFwd_RToCCS_32f(x.data(), Y.data(), fft.spec, nullptr));
    EXPECT_EQ(X, Y) << build.limits.name;
    ASSERT_EQ(ippStsNoErr, ippsFFTInv_CCSToR_32f(X.data(), z.data(), fft.spec, nullptr));
    EXPECT_LT(RelativeError(z, x, 4096), 1e-6);
  }
}

}  // namespace
