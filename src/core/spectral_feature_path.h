#pragma once

#include "primitives/spectral_transform.h"
#include "runtime/model_layout.h"

#include <cstdint>
#include <memory>

namespace Orvik::Tesmo::Dnn {

/// Windows of W samples to and from the packed spectra (spectral_transform.h) of a model that works
/// on spectra: F = W / 2 + 1 bins, 2 F floats. A model on samples has no transform here.
///
/// Real time: the two operations allocate nothing. Not re-entrant.
class SpectralFeaturePath {
public:
  /// Throws what CreateSpectralTransform throws.
  explicit SpectralFeaturePath(const ModelLayout& layout);

  /// The model's tensors hold spectra, on both sides.
  bool IsSpectral() const;
  /// Floats of one window in a tensor: 2 F, or W for a model on samples.
  std::uint64_t GetWindowStride() const;

  /// `samples`: `count` windows in a row; `spectra`: as many packed spectra. Spectral models only.
  void ForwardWindows(const float* samples, float* spectra, std::uint64_t count);
  /// The reverse. Writes 0 to the imaginary parts of the first and the last bin in `spectra`.
  void InverseWindows(float* spectra, float* samples, std::uint64_t count);

private:
  std::uint32_t binCount;  ///< 0 for a model on samples
  std::uint32_t windowLength;
  std::unique_ptr<SpectralTransform> transform;  ///< null for a model on samples
};

}  // namespace Orvik::Tesmo::Dnn
