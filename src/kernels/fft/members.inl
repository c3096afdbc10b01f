// The FFT members of one build: the checks around planner and engine.

#include "kernels/entry.h"
#include "kernels/fft/engine.h"
#include "kernels/fft/plan.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

static IppStatus ippsFFTGetSize_R_32f(int order, int flag, int, int* specSize, int* initSize,
                                      int* workSize) {
  return GetFftSizes(limits, order, flag, specSize, initSize, workSize);
}
static IppStatus ippsFFTInit_R_32f(IppsFFTSpec_R_32f** ppSpec, int order, int flag, int hint,
                                   Ipp8u* specMem, Ipp8u* initMem) {
  return PlanRealFftIn(specMem, initMem, limits, ppSpec, order, flag, hint);
}
static IppStatus ippsFFTInitAlloc_R_32f(IppsFFTSpec_R_32f** ppSpec, int order, int flag, int hint) {
  return PlanRealFft(limits, ppSpec, order, flag, hint);
}
static IppStatus ippsFFTFree_R_32f(IppsFFTSpec_R_32f* pSpec) {
  return FreeFft(pSpec, FftSpec::liveReal);
}

static IppStatus ippsFFTFwd_RToPack_32f(const Ipp32f* pSrc, Ipp32f* pDst,
                                        const IppsFFTSpec_R_32f* pSpec, Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSpec, FftSpec::liveReal, pSrc, pDst);
  if (status != ippStsNoErr) return status;
  const WorkBuffer work(pSpec->workSize, pBuffer, AlignmentOf(Vec::width));
  if (work.missing) return ippStsMemAllocErr;
  if (pSpec->order < 5)
    directRealForward[pSpec->order](pSrc, pDst, pSpec->fwdScaled ? pSpec->scale : 1.0f);
  else
    ForwardFft(pSrc, pDst, *pSpec, work.Floats());
  return ippStsNoErr;
}

static IppStatus ippsFFTFwd_RToCCS_32f(const Ipp32f* pSrc, Ipp32f* pDst,
                                       const IppsFFTSpec_R_32f* pSpec, Ipp8u* pBuffer) {
  const IppStatus status = KERNELS_BUILD::ippsFFTFwd_RToPack_32f(pSrc, pDst, pSpec, pBuffer);
  if (status != ippStsNoErr) return status;
  if (pSpec->order > 0) {
    const std::ptrdiff_t N = std::ptrdiff_t{1} << pSpec->order;
    pDst[N] = pDst[1];
    pDst[N + 1] = 0.0f;
  }
  pDst[1] = 0.0f;
  return ippStsNoErr;
}

static IppStatus ippsFFTInv_CCSToR_32f(const Ipp32f* pSrc, Ipp32f* pDst,
                                       const IppsFFTSpec_R_32f* pSpec, Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSpec, FftSpec::liveReal, pSrc, pDst);
  if (status != ippStsNoErr) return status;
  const WorkBuffer work(pSpec->workSize, pBuffer, AlignmentOf(Vec::width));
  if (work.missing) return ippStsMemAllocErr;
  if (pSpec->order < 5)
    directRealInverse[pSpec->order](pSrc, pDst, pSpec->invScaled ? pSpec->scale : 1.0f);
  else if (pSpec->invScaled)
    InverseFft<Output::Scaled>(pSrc, pDst, *pSpec, work.Floats());
  else
    InverseFft<Output::Interleaved>(pSrc, pDst, *pSpec, work.Floats());
  return ippStsNoErr;
}

static IppStatus ippsFFTFwd_RToCCS_32f_I(Ipp32f* pSrcDst, const IppsFFTSpec_R_32f* pSpec,
                                         Ipp8u* pBuffer) {
  return KERNELS_BUILD::ippsFFTFwd_RToCCS_32f(pSrcDst, pSrcDst, pSpec, pBuffer);
}
static IppStatus ippsFFTInv_CCSToR_32f_I(Ipp32f* pSrcDst, const IppsFFTSpec_R_32f* pSpec,
                                         Ipp8u* pBuffer) {
  return KERNELS_BUILD::ippsFFTInv_CCSToR_32f(pSrcDst, pSrcDst, pSpec, pBuffer);
}

static IppStatus ippsFFTInitAlloc_C_32fc(IppsFFTSpec_C_32fc** ppSpec, int order, int flag,
                                         int hint) {
  return PlanComplexFft(limits, ppSpec, order, flag, hint);
}
static IppStatus ippsFFTFree_C_32fc(IppsFFTSpec_C_32fc* pSpec) {
  return FreeFft(pSpec, FftSpec::liveComplex);
}
static IppStatus ippsFFTGetBufSize_C_32fc(const IppsFFTSpec_C_32fc* pSpec, int* pSize) {
  if (!pSpec || !pSize) return ippStsNullPtrErr;
  if (pSpec->id != FftSpec::liveComplex) return ippStsContextMatchErr;
  *pSize = pSpec->workSize;
  return ippStsNoErr;
}

template <Direction dir>
static IppStatus ComplexFft(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsFFTSpec_C_32fc* pSpec,
                            Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSpec, FftSpec::liveComplex, pSrc, pDst);
  if (status != ippStsNoErr) return status;
  const WorkBuffer work(pSpec->workSize, pBuffer, AlignmentOf(Vec::width));
  if (work.missing) return ippStsMemAllocErr;
  float* dst = &pDst->re;
  ComplexTransform<dir, Output::Interleaved>(&pSrc->re, dst, *pSpec, pSpec->order, work.Floats(),
                                             1.0f);
  if (dir == Direction::Forward ? pSpec->fwdScaled : pSpec->invScaled)
    ippsMulC_32f_I(pSpec->scale, dst, 2 << pSpec->order);
  return ippStsNoErr;
}

constexpr auto ippsFFTFwd_CToC_32fc = ComplexFft<Direction::Forward>;
constexpr auto ippsFFTInv_CToC_32fc = ComplexFft<Direction::Inverse>;

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
