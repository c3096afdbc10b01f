// The DFT's entries for the build that includes this.

#include "kernels/dft/engine.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

static IppStatus ippsDFTInitAlloc_R_32f(IppsDFTSpec_R_32f** ppSpec, int length, int flag,
                                        int hint) {
  return PlanDftSpec(build, ppSpec, length, flag, hint, DftKind::Real);
}

static IppStatus ippsDFTFree_R_32f(IppsDFTSpec_R_32f* pSpec) {
  return FreeDft(pSpec, RealDftId);
}

static IppStatus ippsDFTGetBufSize_R_32f(const IppsDFTSpec_R_32f* pSpec, int* pSize) {
  if (!pSpec || !pSize) return ippStsNullPtrErr;
  if (pSpec->id != RealDftId) return ippStsContextMatchErr;
  *pSize = pSpec->workSize;
  return ippStsNoErr;
}

static IppStatus ippsDFTFwd_RToCCS_32f(const Ipp32f* pSrc, Ipp32f* pDst,
                                       const IppsDFTSpec_R_32f* pSpec, Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSpec, RealDftId, pSrc, pDst);
  return status != ippStsNoErr ? status : RunRealForward(pSrc, pDst, *pSpec, pBuffer);
}

static IppStatus ippsDFTInv_CCSToR_32f(const Ipp32f* pSrc, Ipp32f* pDst,
                                       const IppsDFTSpec_R_32f* pSpec, Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSpec, RealDftId, pSrc, pDst);
  return status != ippStsNoErr ? status : RunRealInverse(pSrc, pDst, *pSpec, pBuffer);
}

static IppStatus ippsDFTInitAlloc_C_32fc(IppsDFTSpec_C_32fc** ppSpec, int length, int flag,
                                         int hint) {
  return PlanDftSpec(build, ppSpec, length, flag, hint, DftKind::Complex);
}

static IppStatus ippsDFTFree_C_32fc(IppsDFTSpec_C_32fc* pSpec) {
  return FreeDft(pSpec, ComplexDftId);
}

template <Direction dir>
static IppStatus ComplexDft(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsDFTSpec_C_32fc* pSpec,
                            Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSpec, ComplexDftId, pSrc, pDst);
  return status != ippStsNoErr ? status : RunComplex(dir, &pSrc->re, &pDst->re, *pSpec, pBuffer);
}
constexpr auto ippsDFTFwd_CToC_32fc = ComplexDft<Direction::Forward>;
constexpr auto ippsDFTInv_CToC_32fc = ComplexDft<Direction::Inverse>;

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
