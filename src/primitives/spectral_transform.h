#pragma once

// One window between real samples and its packed spectrum.
//
// The packed spectrum (CCS) of N real samples, N even: N + 2 floats, the N/2 + 1 bins X[0] to
// X[N/2] as real and imaginary parts in turn. N odd: N + 1 floats, bins X[0] to X[(N-1)/2].
//   forward: X[k] = sum over n of x[n] exp(-2 pi i n k / N), unscaled
//   inverse: x[n] = 1/N sum over all N bins of X[k] exp(+2 pi i n k / N)
// The imaginary parts of X[0] and (N even) X[N/2] are written as 0 and never read.

#include <cstdint>
#include <memory>

namespace Orvik::Tesmo {

/// A transform of fixed length N. Plans and buffers are made at construction; the operations
/// allocate nothing, report nothing, and are not re-entrant on one object.
class SpectralTransform {
public:
  virtual ~SpectralTransform() = default;
  /// `pSrc` N samples, `pDst` the packed spectrum; distinct arrays.
  virtual void Forward(const float* pSrc, float* pDst) = 0;
  /// `pSrc` a packed spectrum, `pDst` N samples; distinct arrays.
  virtual void Inverse(const float* pSrc, float* pDst) = 0;
  /// Room for N + 2 floats: N samples at entry, the packed spectrum at exit.
  virtual void ForwardInPlace(float* pSrcDst) = 0;
  /// The reverse.
  virtual void InverseInPlace(float* pSrcDst) = 0;
};

/// A transform of `size` samples: the FFT for powers of two, the general DFT for every other
/// length. Throws DSP::IPPException when no plan can be made, std::bad_alloc.
std::unique_ptr<SpectralTransform> CreateSpectralTransform(std::uint64_t size);

}  // namespace Orvik::Tesmo
