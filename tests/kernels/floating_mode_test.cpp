// The kernels in the floating-point modes that a host may have set on its thread: they compute in
// that mode, leave it as it was, and raise no exception that their input does not call for.

#include "kernels/planned_transforms.h"
#include "kernels/random.h"
#include "kernels/vector_table.h"
#include "support/floating_mode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>

using namespace KernelTest;
using namespace TestSupport;

namespace {

/// Values between signalling NaNs: whoever computes with what lies beyond the ends raises invalid.
class Fenced {
public:
  explicit Fenced(const std::vector<float>& values, std::size_t offset = 0)
      : memory(values.size() + 2 * fence + offset, std::bit_cast<float>(0x7FA00000U)),
        start(fence + offset), size(values.size()) {
    std::memcpy(data(), values.data(), size * sizeof(float));
  }
  float* data() { return memory.data() + start; }
  std::vector<float> Values() const {
    const auto begin = memory.begin() + static_cast<std::ptrdiff_t>(start);
    return {begin, begin + static_cast<std::ptrdiff_t>(size)};
  }

private:
  static constexpr std::size_t fence = 32;
  std::vector<float> memory;
  std::size_t start, size;
};

TEST(FloatingMode, ElementKernelsComputeTheirFormulaInThatMode) {
  for (const Members& m : AllMembers()) {
    for (const FloatingMode& mode : floatingModes)
      for (const Kernel& kernel : kernels)
        for (const std::size_t n : {1, 3, 4, 7, 8, 15, 29, 67, 200}) {
          SCOPED_TRACE(std::string(mode.name) + ", " + kernel.name + ", " + m.name + ", len " +
                       std::to_string(n));
          // 1, 0 and -0 are short cuts
          constexpr float factors[] = {0.3F, 1.0F, 0.0F, -0.0F, 0.7F};
          const float factor = factors[n % std::size(factors)];
          const auto x = Mixed(n, 1), y = Mixed(n, 2), z = Mixed(n, 3);
          Fenced a(x, n % 5), b(y, n % 3), dst(z, n % 7);
          std::vector<float> expected(n);
          InMode in(mode);
          // a root of a negative value traps here, but not in the kernel, which reports it
          const FloatingMode quiet = {"", mode.rounding, mode.flushed};
          InMode(quiet).Run([&] {
            for (std::size_t i = 0; i < n; ++i)
              expected[i] = kernel.meaning(x[i], y[i], factor, z[i]);
          });
          in.Run(
              [&] { kernel.run(m, a.data(), b.data(), factor, dst.data(), static_cast<int>(n)); });
          const std::vector<float> out = dst.Values();
          for (std::size_t i = 0; i < n; ++i)
            ASSERT_TRUE(Same(expected[i], out[i])) << i << ": " << out[i] << ", " << expected[i];
        }
  }
}

/// One length of the FFT or the DFT: plan, transform, way back.
struct Spectra {
  std::vector<float> spectrum, back;
};
Spectra ThereAndBack(const Members& m, int length, const std::vector<float>& x) {
  const Transform transform = RealDft(m, length, IPP_FFT_DIV_INV_BY_N);
  const auto n = static_cast<std::size_t>(length);
  Fenced samples(x), spectrum(std::vector<float>(n + 2)), back(std::vector<float>(n, 7.0F));
  // work memory is the caller's, with whatever it has in it
  Fenced work(std::vector<float>(*transform.workSize / 4 + 8, std::bit_cast<float>(0x7FA00000U)));
  const auto buffer = reinterpret_cast<Ipp8u*>(work.data());
  transform.forward(samples.data(), spectrum.data(), buffer);
  transform.inverse(spectrum.data(), back.data(), buffer);
  return {spectrum.Values(), back.Values()};
}

TEST(FloatingMode, TransformsErrByTheRoundingOfThatMode) {
  // direct, powers of two of every plan, mixed radices, odd, convolutions
  constexpr int lengths[] = {2,   3,   8,    32,   64,   256,  1024,  4096, 1 << 15, 1 << 18,
                             6,   15,  30,   45,   240,  480,  441,   960,  1764,    2880,
                             997, 106, 1009, 2018, 4087, 9973, 10007, 59,   118};
  for (const Members& m : AllMembers()) {
    for (const int length : lengths) {
      if (length > AtMost(1 << 18)) continue;
      const auto n = static_cast<std::size_t>(length);
      const std::vector<float> x = Noise(n, n);
      const Spectra usual = ThereAndBack(m, length, x);
      const std::size_t bins = n + 2 - n % 2;
      // every stage may err by a whole unit of 2^-23 to the same side, plan and transform alike
      const double tolerance = 3e-7 * (2 + std::log2(n));
      for (const FloatingMode& mode : floatingModes) {
        SCOPED_TRACE(std::string(mode.name) + ", " + m.name + ", length " + std::to_string(length));
        Spectra spectra;
        InMode in(mode);
        in.Run([&] { spectra = ThereAndBack(m, length, x); });
        if (spectra.spectrum.empty()) continue;  // a trap has been reported
        ASSERT_LT(RelativeError(spectra.spectrum, usual.spectrum, bins), tolerance);
        ASSERT_LT(RelativeError(spectra.back, x, n), 2 * tolerance);
      }
      if (length == 1 << 18) continue;
      InMode in({"", FE_TONEAREST, flushing});
      Spectra spectra;
      in.Run([&] { spectra = ThereAndBack(m, length, std::vector<float>(n, 1e-41F)); });
      for (std::size_t k = 0; k < bins; ++k)
        ASSERT_EQ(0.0F, spectra.spectrum[k]) << "denormals, length " << length << ", " << k;
    }
  }
}

}  // namespace
