#include "core/spectral_feature_path.h"

#include "failure/sections.h"

namespace Orvik::Tesmo::Dnn {

SpectralFeaturePath::SpectralFeaturePath(const ModelLayout& layout)
    : binCount(layout.GetInputComponents() > 1 ? layout.GetFeatureSize() : 0),
      windowLength(layout.GetWindowLength()) {
  if (binCount > 0) transform = CreateSpectralTransform(windowLength);
}

RT_CODE bool SpectralFeaturePath::IsSpectral() const {
  return transform != nullptr;
}

RT_CODE std::uint64_t SpectralFeaturePath::GetWindowStride() const {
  return IsSpectral() ? std::uint64_t{2} * binCount : windowLength;
}

RT_CODE void SpectralFeaturePath::ForwardWindows(const float* samples, float* spectra,
                                                 std::uint64_t count) {
  for (std::uint64_t window = 0; window < count; ++window) {
    transform->Forward(samples, spectra);
    samples += windowLength;
    spectra += GetWindowStride();
  }
}

RT_CODE void SpectralFeaturePath::InverseWindows(float* spectra, float* samples,
                                                 std::uint64_t count) {
  for (std::uint64_t window = 0; window < count; ++window) {
    // the imaginary parts of the first and the last bin of a real signal are zero
    spectra[1] = 0.0F;
    spectra[GetWindowStride() - 1] = 0.0F;
    transform->Inverse(spectra, samples);
    spectra += GetWindowStride();
    samples += windowLength;
  }
}

}  // namespace Orvik::Tesmo::Dnn
