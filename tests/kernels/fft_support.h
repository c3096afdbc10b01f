#pragma once

#include "kernels/builds.h"

#include <gtest/gtest.h>

namespace KernelTest {

/// A live real spec with its work buffer.
class RealFft {
public:
  RealFft(int order, int flag) {
    status = ippsFFTInitAlloc_R_32f(&spec, order, flag, ippAlgHintAccurate);
    int specSize = 0, initSize = 0, workSize = 0;
    ippsFFTGetSize_R_32f(order, flag, ippAlgHintAccurate, &specSize, &initSize, &workSize);
    work.resize(static_cast<std::size_t>(workSize) + 1);
  }
  ~RealFft() { ippsFFTFree_R_32f(spec); }
  RealFft(const RealFft&) = delete;
  RealFft& operator=(const RealFft&) = delete;

  IppStatus Forward(const float* src, float* dst) {
    return ippsFFTFwd_RToCCS_32f(src, dst, spec, work.data());
  }
  IppStatus Inverse(const float* src, float* dst) {
    return ippsFFTInv_CCSToR_32f(src, dst, spec, work.data());
  }

  IppsFFTSpec_R_32f* spec = nullptr;
  IppStatus status;
  std::vector<Ipp8u> work;
};

/// What holds at any length, checked in closed form: transforms of impulses and tones, energy,
/// round trip, in place as out of place.
inline void CheckProperties(const BuildUnderTest& build, int order) {
  SCOPED_TRACE(std::string(build.limits.name) + ", order " + std::to_string(order));
  const Selected selected(build);
  const std::size_t N = std::size_t{1} << order;
  constexpr double twoPi = 2 * std::numbers::pi;
  std::mt19937_64 engine(TestSupport::TestSeed() + static_cast<std::uint64_t>(order));
  RealFft fft(order, IPP_FFT_DIV_INV_BY_N);
  ASSERT_EQ(ippStsNoErr, fft.status);
  std::vector<float> x(N + 2), X(N + 2);

  // Impulses of random places and heights: their spectrum, sampled.
  std::vector<std::pair<std::size_t, float>> impulses;
  for (int i = 0; i < 4; ++i) {
    impulses.emplace_back(engine() % N, static_cast<float>(1 + i));
    x[impulses.back().first] = impulses.back().second;
  }
  for (std::size_t i = 0; i < impulses.size(); ++i)
    impulses[i].second = x[impulses[i].first];
  ASSERT_EQ(ippStsNoErr, fft.Forward(x.data(), X.data()));
  for (int probe = 0; probe < 200; ++probe) {
    const std::size_t k = probe == 0 ? 0 : probe == 1 ? N / 2 : engine() % (N / 2 + 1);
    std::complex<double> expected = 0;
    for (std::size_t i = 0; i < impulses.size(); ++i) {
      bool repeated = false;
      for (std::size_t j = 0; j < i; ++j)
        repeated |= impulses[j].first == impulses[i].first;
      if (!repeated)
        expected += std::polar<double>(impulses[i].second,
                                       -twoPi * static_cast<double>(k * impulses[i].first % N) /
                                           static_cast<double>(N));
    }
    ASSERT_NEAR(expected.real(), X[2 * k], 2e-5) << "k " << k;
    ASSERT_NEAR(expected.imag(), X[2 * k + 1], 2e-5) << "k " << k;
  }
  EXPECT_EQ(0.0f, X[1]);
  EXPECT_EQ(0.0f, X[N + 1]);

  // One tone: N/2 times amplitude and phase in its bin, next to nothing elsewhere.
  const std::size_t bin = 1 + engine() % (N / 2 - 1);
  for (std::size_t n = 0; n < N; ++n)
    x[n] = static_cast<float>(
        std::cos(twoPi * static_cast<double>(bin * n % N) / static_cast<double>(N) + 0.7));
  ASSERT_EQ(ippStsNoErr, fft.Forward(x.data(), X.data()));
  const double half = static_cast<double>(N) / 2;
  EXPECT_NEAR(std::cos(0.7), X[2 * bin] / half, 1e-6);
  EXPECT_NEAR(std::sin(0.7), X[2 * bin + 1] / half, 1e-6);
  double elsewhere = 0;
  for (std::size_t k = 0; k <= N / 2; ++k)
    if (k != bin) elsewhere += std::pow(X[2 * k], 2) + std::pow(X[2 * k + 1], 2);
  EXPECT_LT(std::sqrt(elsewhere) / half, Tolerance(order));

  // Noise: energy, the way back, and the same numbers in place.
  const std::vector<float> noise = Noise(N, static_cast<std::uint64_t>(order));
  ASSERT_EQ(ippStsNoErr, fft.Forward(noise.data(), X.data()));
  double time = 0, frequency = 0;
  for (const float v : noise)
    time += std::pow(v, 2);
  for (std::size_t i = 0; i < N + 2; ++i)
    frequency += (i < 2 || i >= N ? 1 : 2) * std::pow(X[i], 2);
  EXPECT_NEAR(1.0, frequency / static_cast<double>(N) / time, 1e-6);
  std::copy(noise.begin(), noise.end(), x.begin());
  ASSERT_EQ(ippStsNoErr, ippsFFTFwd_RToCCS_32f_I(x.data(), fft.spec, fft.work.data()));
  EXPECT_EQ(0, std::memcmp(x.data(), X.data(), (N + 2) * sizeof(float)));
  ASSERT_EQ(ippStsNoErr, fft.Inverse(X.data(), x.data()));
  EXPECT_LT(RelativeError(x, noise, N), 2 * Tolerance(order));
  ASSERT_EQ(ippStsNoErr, ippsFFTInv_CCSToR_32f_I(X.data(), fft.spec, fft.work.data()));
  EXPECT_EQ(0, std::memcmp(x.data(), X.data(), N * sizeof(float)));
}

}  // namespace KernelTest
