// The DFT's entries for the build that includes this.

// The addresses that the SSE builds' flags have computed in place are better kept running here (GCC
// 12, 5 % of a mixed-radix transform).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC push_options
#pragma GCC optimize("ivopts")
#endif

#include "kernels/dft/engine.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

IppStatus ippsDFTInitAlloc_R_32f(IppsDFTSpec_R_32f** ppSpec, int length, int flag, int hint) {
  if (!ppSpec) return ippStsNullPtrErr;
  if (length < 1) return ippStsSizeErr;
  return Dft::MakeSpec(ppSpec, length, flag, hint, DftKind::Real);
}

IppStatus ippsDFTFree_R_32f(IppsDFTSpec_R_32f* pSpec) {
  if (!pSpec) return ippStsNullPtrErr;
  if (pSpec->id != RealDftId) return ippStsContextMatchErr;
  Dft::ReleaseSpec(pSpec);
  return ippStsNoErr;
}

IppStatus ippsDFTGetBufSize_R_32f(const IppsDFTSpec_R_32f* pSpec, int* pSize) {
  if (!pSpec || !pSize) return ippStsNullPtrErr;
  if (pSpec->id != RealDftId) return ippStsContextMatchErr;
  *pSize = pSpec->workSize;
  return ippStsNoErr;
}

static IppStatus CheckTransform(const void* src, const void* dst, const IppsDFTSpec_R_32f* spec,
                                std::int32_t id) {
  if (!spec) return ippStsNullPtrErr;
  if (spec->id != id) return ippStsContextMatchErr;
  return src && dst ? ippStsNoErr : ippStsNullPtrErr;
}

IppStatus ippsDFTFwd_RToCCS_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsDFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSrc, pDst, pSpec, RealDftId);
  return status != ippStsNoErr ? status : Dft::RunRealForward(pSrc, pDst, *pSpec, pBuffer);
}

IppStatus ippsDFTInv_CCSToR_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsDFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSrc, pDst, pSpec, RealDftId);
  return status != ippStsNoErr ? status : Dft::RunRealInverse(pSrc, pDst, *pSpec, pBuffer);
}

IppStatus ippsDFTInitAlloc_C_32fc(IppsDFTSpec_C_32fc** ppSpec, int length, int flag, int hint) {
  if (!ppSpec) return ippStsNullPtrErr;
  if (length < 1) return ippStsSizeErr;
  return Dft::MakeSpec(ppSpec, length, flag, hint, DftKind::Complex);
}

IppStatus ippsDFTFree_C_32fc(IppsDFTSpec_C_32fc* pSpec) {
  if (!pSpec) return ippStsNullPtrErr;
  if (pSpec->id != ComplexDftId) return ippStsContextMatchErr;
  Dft::ReleaseSpec(pSpec);
  return ippStsNoErr;
}

IppStatus ippsDFTFwd_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsDFTSpec_C_32fc* pSpec,
                               Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSrc, pDst, pSpec, ComplexDftId);
  return status != ippStsNoErr
             ? status
             : Dft::RunComplex(Direction::Forward, reinterpret_cast<const float*>(pSrc),
                               reinterpret_cast<float*>(pDst), *pSpec, pBuffer);
}

IppStatus ippsDFTInv_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsDFTSpec_C_32fc* pSpec,
                               Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSrc, pDst, pSpec, ComplexDftId);
  return status != ippStsNoErr
             ? status
             : Dft::RunComplex(Direction::Inverse, reinterpret_cast<const float*>(pSrc),
                               reinterpret_cast<float*>(pDst), *pSpec, pBuffer);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC pop_options
#endif
