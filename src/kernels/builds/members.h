// What every build defines, in its own namespace KERNELS_BUILD. No include guard: all_members.h
// reads it once for each build.

#include "kernels/ipps.h"

struct IppsFFTSpec_C_32fc;

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

// The dispatched entries: arguments, results and statuses in ipps.h.

IppStatus ippsCopy_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len);
IppStatus ippsAdd_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len);
IppStatus ippsMul_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len);
IppStatus ippsMul_32f_I(const Ipp32f* pSrc, Ipp32f* pSrcDst, int len);
IppStatus ippsMulC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pDst, int len);
IppStatus ippsAddProductC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pSrcDst, int len);
IppStatus ippsSqrt_32f_I(Ipp32f* pSrcDst, int len);
IppStatus ippsInterleave_32f(const Ipp32f* const* pSrc, int ch_num, int len, Ipp32f* pDst);
IppStatus ippsDeinterleave_32f(const Ipp32f* pSrc, int ch_num, int len, Ipp32f* const* pDst);

IppStatus ippsFFTGetSize_R_32f(int order, int flag, int hint, int* specSize, int* initSize,
                               int* workSize);
IppStatus ippsFFTInitAlloc_R_32f(IppsFFTSpec_R_32f** ppSpec, int order, int flag, int hint);
IppStatus ippsFFTFree_R_32f(IppsFFTSpec_R_32f* pSpec);
IppStatus ippsFFTFwd_RToCCS_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsFFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer);
IppStatus ippsFFTInv_CCSToR_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsFFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer);
IppStatus ippsFFTFwd_RToCCS_32f_I(Ipp32f* pSrcDst, const IppsFFTSpec_R_32f* pSpec, Ipp8u* pBuffer);
IppStatus ippsFFTInv_CCSToR_32f_I(Ipp32f* pSrcDst, const IppsFFTSpec_R_32f* pSpec, Ipp8u* pBuffer);

IppStatus ippsDFTInitAlloc_R_32f(IppsDFTSpec_R_32f** ppSpec, int length, int flag, int hint);
IppStatus ippsDFTFree_R_32f(IppsDFTSpec_R_32f* pSpec);
IppStatus ippsDFTGetBufSize_R_32f(const IppsDFTSpec_R_32f* pSpec, int* pSize);
IppStatus ippsDFTFwd_RToCCS_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsDFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer);
IppStatus ippsDFTInv_CCSToR_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsDFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer);

// Members that only other kernels of the same build call. Pointers, then len from 1, as above.

IppStatus ippsZero_32f(Ipp32f* pDst, int len);
IppStatus ippsZero_32fc(Ipp32fc* pDst, int len);
/// val == 1 does nothing, val == 0 writes zeros.
IppStatus ippsMulC_32f_I(Ipp32f val, Ipp32f* pSrcDst, int len);
IppStatus ippsConj_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, int len);
IppStatus ippsMul_32fc(const Ipp32fc* pSrc1, const Ipp32fc* pSrc2, Ipp32fc* pDst, int len);
IppStatus ippsMul_32fc_I(const Ipp32fc* pSrc, Ipp32fc* pSrcDst, int len);

/// A real spec in the caller's memory: specMem and initMem of the sizes that ippsFFTGetSize_R_32f
/// gives, of any alignment; initMem is free again afterwards.
IppStatus ippsFFTInit_R_32f(IppsFFTSpec_R_32f** ppSpec, int order, int flag, int hint,
                            Ipp8u* specMem, Ipp8u* initMem);
/// The forward transform in packed order, N floats: X[0], X[N/2] (from N = 2), Re X[1], Im X[1] and
/// so on. Statuses and work buffer as ippsFFTFwd_RToCCS_32f.
IppStatus ippsFFTFwd_RToPack_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsFFTSpec_R_32f* pSpec,
                                 Ipp8u* pBuffer);

// Complex transforms of 2^order values, order 0 to 28: flags, hint, statuses and work buffer as the
// real ones. pSrc may equal pDst.

IppStatus ippsFFTInitAlloc_C_32fc(IppsFFTSpec_C_32fc** ppSpec, int order, int flag, int hint);
IppStatus ippsFFTFree_C_32fc(IppsFFTSpec_C_32fc* pSpec);
/// Bytes of work buffer, may be 0.
IppStatus ippsFFTGetBufSize_C_32fc(const IppsFFTSpec_C_32fc* pSpec, int* pSize);
IppStatus ippsFFTFwd_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsFFTSpec_C_32fc* pSpec,
                               Ipp8u* pBuffer);
IppStatus ippsFFTInv_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsFFTSpec_C_32fc* pSpec,
                               Ipp8u* pBuffer);

// Complex transforms of any length: statuses and limits as the real ones. pSrc may equal pDst.

IppStatus ippsDFTInitAlloc_C_32fc(IppsDFTSpec_R_32f** ppSpec, int length, int flag, int hint);
IppStatus ippsDFTFree_C_32fc(IppsDFTSpec_R_32f* pSpec);
IppStatus ippsDFTFwd_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsDFTSpec_R_32f* pSpec,
                               Ipp8u* pBuffer);
IppStatus ippsDFTInv_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsDFTSpec_R_32f* pSpec,
                               Ipp8u* pBuffer);

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
