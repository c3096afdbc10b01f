// The FFT members of one build: the checks around planner and engine.

#include "kernels/fft/engine.h"
#include "kernels/fft/plan.h"
#include "kernels/fft/recombine.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// The caller's work buffer, or one of our own for the time of a call.
class WorkBuffer {
public:
  WorkBuffer(std::int32_t size, Ipp8u* given) {
    if (size > 0 && !given) own = given = ippsMalloc(size);
    missing = size > 0 && !given;
    floats = size > 0 ? reinterpret_cast<float*>(AlignUp(given)) : nullptr;
  }
  ~WorkBuffer() { ippsFree(own); }
  WorkBuffer(const WorkBuffer&) = delete;
  WorkBuffer& operator=(const WorkBuffer&) = delete;

  float* floats;
  bool missing;

private:
  Ipp8u* own = nullptr;
};

static IppStatus CheckTransform(const FftSpec* spec, std::int32_t id, const void* src,
                                const void* dst) {
  if (!spec) return ippStsNullPtrErr;
  if (spec->id != id) return ippStsContextMatchErr;
  return src && dst ? ippStsNoErr : ippStsNullPtrErr;
}

/// Makes a spec of either kind in memory of its own.
template <class Spec>
static IppStatus InitAlloc(Spec** ppSpec, const FftLayout& layout, bool real, int flag, int hint) {
  Ipp8u* memory = ippsMalloc(layout.specSize);
  if (!memory) return ippStsMemAllocErr;
  Ipp8u* initMem = layout.initSize > 0 ? ippsMalloc(layout.initSize) : nullptr;
  IppStatus status = ippStsMemAllocErr;
  if (layout.initSize == 0 || initMem) {
    auto* spec = reinterpret_cast<Spec*>(memory);
    status =
        BuildSpec(layout, limits, real, flag, hint, spec, initMem) ? ippStsNoErr : ippStsFftFlagErr;
    ippsFree(initMem);
    if (status == ippStsNoErr) {
      spec->owned = 1;
      *ppSpec = spec;
      return status;
    }
  }
  ippsFree(memory);
  return status;
}

static IppStatus FreeSpec(FftSpec* spec, std::int32_t id) {
  if (!spec) return ippStsNullPtrErr;
  if (spec->id != id) return ippStsContextMatchErr;
  spec->id = 0;
  if (spec->owned) ippsFree(spec);
  return ippStsNoErr;
}

IppStatus ippsFFTGetSize_R_32f(int order, int flag, int, int* specSize, int* initSize,
                               int* workSize) {
  if (order < 0 || order > maxOrder + 1) return ippStsFftOrderErr;
  if (!specSize || !initSize || !workSize) return ippStsNullPtrErr;
  if (!IsFlag(flag)) return ippStsFftFlagErr;
  if (order > maxOrder) return ippStsFftOrderErr;
  const FftLayout layout = LayoutOf(limits, order, true);
  // Room to align a block of the caller's.
  *specSize = layout.specSize + static_cast<int>(tableAlignment);
  *initSize = layout.initSize;
  *workSize = layout.workSize;
  return ippStsNoErr;
}

IppStatus ippsFFTInit_R_32f(IppsFFTSpec_R_32f** ppSpec, int order, int flag, int hint,
                            Ipp8u* specMem, Ipp8u* initMem) {
  if (!ppSpec) return ippStsNullPtrErr;
  if (order < 0 || order > maxOrder) return ippStsFftOrderErr;
  if (!specMem) return ippStsNullPtrErr;
  auto* spec = reinterpret_cast<IppsFFTSpec_R_32f*>(AlignUp(specMem));
  spec->id = 0;
  if (!IsFlag(flag)) return ippStsFftFlagErr;
  const FftLayout layout = LayoutOf(limits, order, true);
  if (layout.initSize > 0 && !initMem) return ippStsNullPtrErr;
  BuildSpec(layout, limits, true, flag, hint, spec, initMem);
  *ppSpec = spec;
  return ippStsNoErr;
}

IppStatus ippsFFTInitAlloc_R_32f(IppsFFTSpec_R_32f** ppSpec, int order, int flag, int hint) {
  int specSize = 0, initSize = 0, workSize = 0;
  if (!ppSpec) return ippStsNullPtrErr;
  const IppStatus status = ippsFFTGetSize_R_32f(order, flag, hint, &specSize, &initSize, &workSize);
  if (status != ippStsNoErr) return status;
  return InitAlloc(ppSpec, LayoutOf(limits, order, true), true, flag, hint);
}

IppStatus ippsFFTFree_R_32f(IppsFFTSpec_R_32f* pSpec) {
  return FreeSpec(pSpec, FftSpec::liveReal);
}

IppStatus ippsFFTFwd_RToPack_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsFFTSpec_R_32f* pSpec,
                                 Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSpec, FftSpec::liveReal, pSrc, pDst);
  if (status != ippStsNoErr) return status;
  const WorkBuffer work(pSpec->workSize, pBuffer);
  if (work.missing) return ippStsMemAllocErr;
  const float scale = pSpec->fwdScaled ? pSpec->scale : 1.0f;
  switch (pSpec->order) {
  case 0:
    DirectRealForward<1>(pSrc, pDst, scale);
    break;
  case 1:
    DirectRealForward<2>(pSrc, pDst, scale);
    break;
  case 2:
    DirectRealForward<4>(pSrc, pDst, scale);
    break;
  case 3:
    DirectRealForward<8>(pSrc, pDst, scale);
    break;
  case 4:
    DirectRealForward<16>(pSrc, pDst, scale);
    break;
  default:
    RealForward(pSrc, pDst, *pSpec, work.floats);
  }
  return ippStsNoErr;
}

IppStatus ippsFFTFwd_RToCCS_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsFFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer) {
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

IppStatus ippsFFTInv_CCSToR_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsFFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSpec, FftSpec::liveReal, pSrc, pDst);
  if (status != ippStsNoErr) return status;
  const WorkBuffer work(pSpec->workSize, pBuffer);
  if (work.missing) return ippStsMemAllocErr;
  const float scale = pSpec->invScaled ? pSpec->scale : 1.0f;
  switch (pSpec->order) {
  case 0:
    DirectRealInverse<1>(pSrc, pDst, scale);
    break;
  case 1:
    DirectRealInverse<2>(pSrc, pDst, scale);
    break;
  case 2:
    DirectRealInverse<4>(pSrc, pDst, scale);
    break;
  case 3:
    DirectRealInverse<8>(pSrc, pDst, scale);
    break;
  case 4:
    DirectRealInverse<16>(pSrc, pDst, scale);
    break;
  default:
    (pSpec->invScaled ? RealInverse<Output::Scaled>
                      : RealInverse<Output::Interleaved>)(pSrc, pDst, *pSpec, work.floats);
  }
  return ippStsNoErr;
}

IppStatus ippsFFTFwd_RToCCS_32f_I(Ipp32f* pSrcDst, const IppsFFTSpec_R_32f* pSpec, Ipp8u* pBuffer) {
  return KERNELS_BUILD::ippsFFTFwd_RToCCS_32f(pSrcDst, pSrcDst, pSpec, pBuffer);
}
IppStatus ippsFFTInv_CCSToR_32f_I(Ipp32f* pSrcDst, const IppsFFTSpec_R_32f* pSpec, Ipp8u* pBuffer) {
  return KERNELS_BUILD::ippsFFTInv_CCSToR_32f(pSrcDst, pSrcDst, pSpec, pBuffer);
}

IppStatus ippsFFTInitAlloc_C_32fc(IppsFFTSpec_C_32fc** ppSpec, int order, int flag, int hint) {
  if (!ppSpec) return ippStsNullPtrErr;
  if (order < 0 || order >= maxOrder) return ippStsFftOrderErr;
  return InitAlloc(ppSpec, LayoutOf(limits, order + 1, false), false, flag, hint);
}

IppStatus ippsFFTFree_C_32fc(IppsFFTSpec_C_32fc* pSpec) {
  return FreeSpec(pSpec, FftSpec::liveComplex);
}

IppStatus ippsFFTGetBufSize_C_32fc(const IppsFFTSpec_C_32fc* pSpec, int* pSize) {
  if (!pSpec || !pSize) return ippStsNullPtrErr;
  if (pSpec->id != FftSpec::liveComplex) return ippStsContextMatchErr;
  *pSize = pSpec->workSize;
  return ippStsNoErr;
}

template <Direction dir>
static IppStatus ComplexEntry(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsFFTSpec_C_32fc* pSpec,
                              Ipp8u* pBuffer) {
  const IppStatus status = CheckTransform(pSpec, FftSpec::liveComplex, pSrc, pDst);
  if (status != ippStsNoErr) return status;
  const WorkBuffer work(pSpec->workSize, pBuffer);
  if (work.missing) return ippStsMemAllocErr;
  float* dst = &pDst->re;
  ComplexTransform<dir, Output::Interleaved>(&pSrc->re, dst, *pSpec, pSpec->order, work.floats,
                                             1.0f);
  if (dir == Direction::Forward ? pSpec->fwdScaled : pSpec->invScaled)
    ippsMulC_32f_I(pSpec->scale, dst, 2 << pSpec->order);
  return ippStsNoErr;
}

IppStatus ippsFFTFwd_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsFFTSpec_C_32fc* pSpec,
                               Ipp8u* pBuffer) {
  return ComplexEntry<Direction::Forward>(pSrc, pDst, pSpec, pBuffer);
}
IppStatus ippsFFTInv_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsFFTSpec_C_32fc* pSpec,
                               Ipp8u* pBuffer) {
  return ComplexEntry<Direction::Inverse>(pSrc, pDst, pSpec, pBuffer);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
