// The packed spectrum by its definition, in double: what the core's tests run models on spectra
// with.

#include "failure/exceptions.h"
#include "primitives/spectral_transform.h"

#include <cmath>
#include <numbers>

namespace Orvik::Tesmo {

namespace {

class PlainTransform final : public SpectralTransform {
public:
  explicit PlainTransform(std::uint64_t size) : size(size) {}

  void Forward(const float* pSrc, float* pDst) override {
    for (std::uint64_t k = 0; k <= size / 2; ++k) {
      double re = 0, im = 0;
      for (std::uint64_t n = 0; n < size; ++n) {
        re += pSrc[n] * std::cos(Angle(k * n));
        im -= pSrc[n] * std::sin(Angle(k * n));
      }
      pDst[2 * k] = static_cast<float>(re);
      pDst[2 * k + 1] = k == 0 || 2 * k == size ? 0.0F : static_cast<float>(im);
    }
  }

  /// Reads the imaginary parts that a real signal does not have, so that leaving them in shows.
  void Inverse(const float* pSrc, float* pDst) override {
    for (std::uint64_t n = 0; n < size; ++n) {
      double sum = pSrc[0] + pSrc[1];
      for (std::uint64_t k = 1; k < size / 2; ++k)
        sum +=
            2 * (pSrc[2 * k] * std::cos(Angle(k * n)) - pSrc[2 * k + 1] * std::sin(Angle(k * n)));
      const double last = pSrc[size] + pSrc[size + 1];
      pDst[n] = static_cast<float>((sum + (n % 2 ? -last : last)) / static_cast<double>(size));
    }
  }

  void ForwardInPlace(float*) override { throw ContractException("not used by the core"); }
  void InverseInPlace(float*) override { throw ContractException("not used by the core"); }

private:
  double Angle(std::uint64_t turns) const {
    return 2 * std::numbers::pi * static_cast<double>(turns % size) / static_cast<double>(size);
  }

  std::uint64_t size;
};

}  // namespace

std::unique_ptr<SpectralTransform> CreateSpectralTransform(std::uint64_t size) {
  return std::make_unique<PlainTransform>(size);
}

}  // namespace Orvik::Tesmo
