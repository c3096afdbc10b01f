#include "kernels/fft_support.h"

#include "kernels/fft/planned_fft.h"

#include <limits>

using namespace KernelTest;

namespace {

TEST(Fft, IsTheDefinitionUnderEveryFlag) {
  for (int order = 0; order <= 10; ++order) {
    const std::size_t N = std::size_t{1} << order, bins = order == 0 ? 2 : N + 2;
    const std::vector<float> x = Noise(N, static_cast<std::uint64_t>(order));
    const std::vector<double> plain = Definition(N).Spectrum(x);
    const std::vector<float> spectrum(plain.begin(), plain.end());
    for (const auto& build : Builds())
      for (const FlagScales& row : AllFlags(N)) {
        SCOPED_TRACE(std::string(build.limits.name) + ", order " + std::to_string(order) +
                     ", flag " + std::to_string(row.flag));
        const Selected selected(build);
        RealFft fft(order, row.flag);
        std::vector<float> y(N + 2), z(N + 2);
        fft.Forward(x.data(), y.data());
        fft.Inverse(spectrum.data(), z.data());
        std::vector<double> bothWays[] = {plain, {x.begin(), x.end()}};
        for (double& v : bothWays[0])
          v *= row.forward;
        for (double& v : bothWays[1])
          v *= row.inverse * static_cast<double>(N);
        // 1/sqrt(N) is one Newton step from the processor's estimate.
        const double tolerance = Tolerance(order) + (row.flag == IPP_FFT_DIV_BY_SQRTN ? 2e-7 : 0.0);
        EXPECT_LT(RelativeError(y, bothWays[0], bins), tolerance);
        EXPECT_EQ(0.0f, y[1]);
        EXPECT_EQ(0.0f, y[bins - 1]);
        EXPECT_LT(RelativeError(z, bothWays[1], N), tolerance);
      }
  }
}

TEST(Fft, KeepsItsPropertiesUpToOrder22) {
  for (const auto& build : Builds())
    for (int order = 2; order <= 22; ++order)
      CheckProperties(build, order);
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
  for (const int order : {4, 6, 9, 12})
    for (const float value : {std::numeric_limits<float>::denorm_min(), inf, nan})
      for (const auto& build : Builds()) {
        SCOPED_TRACE(std::to_string(value) + ", " + build.limits.name + ", order " +
                     std::to_string(order));
        const Selected selected(build);
        const std::size_t N = std::size_t{1} << order;
        RealFft fft(order, IPP_FFT_DIV_INV_BY_N);
        std::vector<float> X(N + 2, 5.0f);
        fft.Forward(std::vector<float>(N, value).data(), X.data());
        if (std::isfinite(value)) {
          EXPECT_EQ(value * static_cast<float>(N), X[0]);
        }
        EXPECT_EQ(std::isfinite(value), std::isfinite(X[0]));
        EXPECT_EQ(!std::isfinite(value), std::isnan(X[4]));
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

}  // namespace
