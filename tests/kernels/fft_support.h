#pragma once

#include "kernels/transform_checks.h"

namespace KernelTest {

/// A live real spec with its work buffer.
class RealFft {
public:
  RealFft(int order, int flag) {
    EXPECT_EQ(ippStsNoErr, ippsFFTInitAlloc_R_32f(&spec, order, flag, ippAlgHintAccurate));
    int specSize = 0, initSize = 0, workSize = 0;
    ippsFFTGetSize_R_32f(order, flag, ippAlgHintAccurate, &specSize, &initSize, &workSize);
    work.resize(static_cast<std::size_t>(workSize) + 1);
  }
  ~RealFft() { EXPECT_EQ(ippStsNoErr, ippsFFTFree_R_32f(spec)); }
  RealFft(const RealFft&) = delete;
  RealFft& operator=(const RealFft&) = delete;

  /// In place, and then without the work buffer, where both arrays are one.
  void Forward(const float* src, float* dst) {
    EXPECT_EQ(ippStsNoErr, src == dst ? ippsFFTFwd_RToCCS_32f_I(dst, spec, nullptr)
                                      : ippsFFTFwd_RToCCS_32f(src, dst, spec, work.data()));
  }
  void Inverse(const float* src, float* dst) {
    EXPECT_EQ(ippStsNoErr, src == dst ? ippsFFTInv_CCSToR_32f_I(dst, spec, nullptr)
                                      : ippsFFTInv_CCSToR_32f(src, dst, spec, work.data()));
  }

  IppsFFTSpec_R_32f* spec = nullptr;
  std::vector<Ipp8u> work;
};

/// What holds at any length, checked in closed form: transforms of impulses and tones, and the way
/// back from noise.
inline void CheckProperties(const BuildUnderTest& build, int order) {
  SCOPED_TRACE(std::string(build.limits.name) + ", order " + std::to_string(order));
  const Selected selected(build);
  const std::size_t N = std::size_t{1} << order;
  std::mt19937_64 engine(TestSupport::TestSeed() + static_cast<std::uint64_t>(order));
  RealFft fft(order, IPP_FFT_DIV_INV_BY_N);
  std::vector<float> x(N), X(N + 2);

  // Impulses of random places and heights: their spectrum, sampled.
  std::vector<std::pair<std::size_t, float>> impulses;
  for (const float height : {1.0f, 2.0f, 3.0f, 4.0f}) {
    const std::size_t place = engine() % N;
    impulses.emplace_back(place, height);
    x[place] += height;
  }
  fft.Forward(x.data(), X.data());
  for (int probe = 0; probe < 200; ++probe) {
    const std::size_t k = probe == 0 ? 0 : probe == 1 ? N / 2 : engine() % (N / 2 + 1);
    std::complex<double> expected = 0;
    for (const auto& [place, height] : impulses)
      expected += double{height} * Root(k * place, N);
    ASSERT_NEAR(expected.real(), X[2 * k], 2e-5) << "k " << k;
    ASSERT_NEAR(expected.imag(), X[2 * k + 1], 2e-5) << "k " << k;
  }

  // One tone: N/2 times amplitude and phase in its bin, next to nothing elsewhere.
  const std::size_t bin = 1 + engine() % (N / 2 - 1);
  const std::complex<double> phase = std::polar(1.0, 0.7);
  for (std::size_t n = 0; n < N; ++n)
    x[n] = static_cast<float>((phase * std::conj(Root(bin * n, N))).real());
  fft.Forward(x.data(), X.data());
  const double half = static_cast<double>(N) / 2;
  EXPECT_NEAR(phase.real(), X[2 * bin] / half, 1e-6);
  EXPECT_NEAR(phase.imag(), X[2 * bin + 1] / half, 1e-6);
  double elsewhere = 0;
  for (std::size_t k = 0; k <= N / 2; ++k)
    if (k != bin) elsewhere += std::pow(X[2 * k], 2) + std::pow(X[2 * k + 1], 2);
  EXPECT_LT(std::sqrt(elsewhere) / half, Tolerance(order));

  x = Noise(N, static_cast<std::uint64_t>(order));
  CheckRoundTrip(fft, x, X, 2 * Tolerance(order));
}

}  // namespace KernelTest
