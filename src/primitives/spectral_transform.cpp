#include "primitives/spectral_transform.h"

#include "failure/exceptions.h"
#include "failure/sections.h"
#include "kernels/ipps.h"
#include "primitives/signal_primitives.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace Orvik::Tesmo {

namespace {

RT_CONST const char16_t FftInitFailure[] = u"ippsFFTInitAlloc_R_32f failure";
RT_CONST const char16_t DftInitFailure[] = u"ippsDFTInitAlloc_R_32f failure";
RT_CONST const char16_t DftSizeFailure[] = u"ippsDFTGetBufSize_R_32f failure";

// No scale forward, 1/N inverse.
constexpr int Flag = IPP_FFT_DIV_INV_BY_N;
constexpr int Hint = ippAlgHintAccurate;

template <class Spec, IppStatus (*Free)(Spec*)>
struct SpecDeleter {
  RT_CODE void operator()(Spec* spec) const { Free(spec); }
};
using FftSpec =
    std::unique_ptr<IppsFFTSpec_R_32f, SpecDeleter<IppsFFTSpec_R_32f, ippsFFTFree_R_32f>>;
using DftSpec =
    std::unique_ptr<IppsDFTSpec_R_32f, SpecDeleter<IppsDFTSpec_R_32f, ippsDFTFree_R_32f>>;

/// Zero-filled, and not empty: a kernel that needs no work takes any pointer but null for one.
RT_CODE std::unique_ptr<Ipp8u[]> MakeWorkBuffer(int size) {
  return std::make_unique<Ipp8u[]>(static_cast<std::size_t>(std::max(size, 1)));
}

}  // namespace

class FftSpectralTransform final : public SpectralTransform {
public:
  /// `size` is a power of two.
  explicit FftSpectralTransform(std::uint64_t size);
  ~FftSpectralTransform() override;
  void Forward(const float* pSrc, float* pDst) override;
  void Inverse(const float* pSrc, float* pDst) override;
  void ForwardInPlace(float* pSrcDst) override;
  void InverseInPlace(float* pSrcDst) override;

private:
  std::uint64_t order;
  FftSpec spec;
  std::unique_ptr<Ipp8u[]> workBuffer;
};

class DftSpectralTransform final : public SpectralTransform {
public:
  explicit DftSpectralTransform(std::uint64_t size);
  ~DftSpectralTransform() override;
  void Forward(const float* pSrc, float* pDst) override;
  void Inverse(const float* pSrc, float* pDst) override;
  void ForwardInPlace(float* pSrcDst) override;
  void InverseInPlace(float* pSrcDst) override;

private:
  std::uint64_t length;
  DftSpec spec;
  std::unique_ptr<Ipp8u[]> workBuffer;
  std::unique_ptr<float[]> scratch;  ///< a packed spectrum
};

RT_CODE FftSpectralTransform::FftSpectralTransform(std::uint64_t size)
    : order(static_cast<std::uint64_t>(std::log2(static_cast<double>(size)))) {
  const int kernelOrder = static_cast<int>(order);
  IppsFFTSpec_R_32f* made = nullptr;
  if (const IppStatus status = ippsFFTInitAlloc_R_32f(&made, kernelOrder, Flag, Hint))
    throw DSP::IPPException{FftInitFailure, status};
  spec.reset(made);
  int specSize = 0, initSize = 0, workSize = 0;
  ippsFFTGetSize_R_32f(kernelOrder, Flag, Hint, &specSize, &initSize, &workSize);
  workBuffer = MakeWorkBuffer(workSize);
}

RT_CODE FftSpectralTransform::~FftSpectralTransform() = default;

RT_CODE void FftSpectralTransform::Forward(const float* pSrc, float* pDst) {
  ippsFFTFwd_RToCCS_32f(pSrc, pDst, spec.get(), workBuffer.get());
}
RT_CODE void FftSpectralTransform::Inverse(const float* pSrc, float* pDst) {
  ippsFFTInv_CCSToR_32f(pSrc, pDst, spec.get(), workBuffer.get());
}
RT_CODE void FftSpectralTransform::ForwardInPlace(float* pSrcDst) {
  ippsFFTFwd_RToCCS_32f_I(pSrcDst, spec.get(), workBuffer.get());
}
RT_CODE void FftSpectralTransform::InverseInPlace(float* pSrcDst) {
  ippsFFTInv_CCSToR_32f_I(pSrcDst, spec.get(), workBuffer.get());
}

RT_CODE DftSpectralTransform::DftSpectralTransform(std::uint64_t size) : length(size) {
  // what no int holds is above the kernels' limit as well
  constexpr std::uint64_t limit = std::numeric_limits<int>::max();
  const int kernelLength = static_cast<int>(std::min(size, limit));
  IppsDFTSpec_R_32f* made = nullptr;
  if (const IppStatus status = ippsDFTInitAlloc_R_32f(&made, kernelLength, Flag, Hint))
    throw DSP::IPPException{DftInitFailure, status};
  spec.reset(made);
  int workSize = 0;
  if (const IppStatus status = ippsDFTGetBufSize_R_32f(made, &workSize))
    throw DSP::IPPException{DftSizeFailure, status};
  workBuffer = MakeWorkBuffer(workSize);
  scratch = std::make_unique<float[]>(length + 2);
}

RT_CODE DftSpectralTransform::~DftSpectralTransform() = default;

RT_CODE void DftSpectralTransform::Forward(const float* pSrc, float* pDst) {
  ippsDFTFwd_RToCCS_32f(pSrc, pDst, spec.get(), workBuffer.get());
}
RT_CODE void DftSpectralTransform::Inverse(const float* pSrc, float* pDst) {
  ippsDFTInv_CCSToR_32f(pSrc, pDst, spec.get(), workBuffer.get());
}
RT_CODE void DftSpectralTransform::ForwardInPlace(float* pSrcDst) {
  Forward(pSrcDst, scratch.get());
  SignalPrimitives::Copy(scratch.get(), pSrcDst, length + 2);
}
RT_CODE void DftSpectralTransform::InverseInPlace(float* pSrcDst) {
  Inverse(pSrcDst, scratch.get());
  SignalPrimitives::Copy(scratch.get(), pSrcDst, length);
}

RT_CODE std::unique_ptr<SpectralTransform> CreateSpectralTransform(std::uint64_t size) {
  if (size == 0 || (size & (size - 1)) != 0) return std::make_unique<DftSpectralTransform>(size);
  return std::make_unique<FftSpectralTransform>(size);
}

}  // namespace Orvik::Tesmo
