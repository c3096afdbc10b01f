#pragma once

// The kernel library's one header: numeric kernels on 32-bit floats behind a table dispatch.
// C linkage, plain pointers, a status for every call. Nothing here throws; nothing allocates but
// the planners, and a transform that is called without the work buffer it needs.
//
// Argument checks come first, pointers before lengths; a refused call has written nothing. A
// positive status is a warning after complete work.
//
// No call keeps state: any number of threads may run kernels on separate buffers, and share one
// spec, each with its own work buffer.

#include <cstdint>

using Ipp32f = float;
using Ipp8u = std::uint8_t;
struct Ipp32fc {
  float re, im;
};

using IppStatus = std::int32_t;
enum : IppStatus {
  ippStsNoErr = 0,
  ippStsMisalignedBuf = 2,  ///< done; a buffer is not aligned to 16 bytes (interleaving kernels)
  ippStsSqrtNegArg = 3,     ///< done; a negative element was met
  ippStsNotSupportedCpu = 36,
  ippStsUnknownCacheSize = 37,
  ippStsSizeErr = -6,
  ippStsNullPtrErr = -8,
  ippStsMemAllocErr = -9,
  ippStsFftOrderErr = -15,
  ippStsFftFlagErr = -16,
  ippStsContextMatchErr = -17,
  ippStsNumChannelsErr = -53,
};

/// Where a transform multiplies, exactly one of the four.
enum : int {
  IPP_FFT_DIV_FWD_BY_N = 1,
  IPP_FFT_DIV_INV_BY_N = 2,
  IPP_FFT_DIV_BY_SQRTN = 4,
  IPP_FFT_NODIV_BY_ANY = 8,
};
/// The `hint` of a planner is stored and has no effect.
enum : int { ippAlgHintNone = 0, ippAlgHintFast = 1, ippAlgHintAccurate = 2 };

struct IppsFFTSpec_R_32f;
struct IppsDFTSpec_R_32f;

extern "C" {

/// Which build of every entry runs: 0 and 1 SSE3, 2 SSSE3, 3 SSE3 with plan limits of its own,
/// 4 SSE4.1, 5 AVX; on ARM64 all six run NEON. 0 at load. Write it before the first spec is made: a
/// spec is only valid under the index it was made with.
extern std::int32_t ippVariantIndex;

/// The best index for this processor and operating system. Changes nothing.
std::int32_t ippBestVariantIndex();

/// At least `length` bytes aligned to 32; null when length is below 1 or there is no memory.
Ipp8u* ippsMalloc(std::int32_t length);
void ippsFree(void* block);

/// The largest data or unified cache in bytes, as leaf 4 or leaf 2 of an Intel processor tells it.
/// ippStsNotSupportedCpu for other makers and ippStsUnknownCacheSize write 0.
IppStatus ippGetMaxCacheSizeB(std::int32_t* size);

// Element-wise, for i in [0, len): len from 1. pSrc may equal pDst; other overlaps are not defined.

IppStatus ippsCopy_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len);
IppStatus ippsAdd_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len);
IppStatus ippsMul_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len);
IppStatus ippsMul_32f_I(const Ipp32f* pSrc, Ipp32f* pSrcDst, int len);
/// val == 1 copies and val == 0 writes zeros, also over NaN and infinity.
IppStatus ippsMulC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pDst, int len);
/// A rounded product, then a rounded sum: never fused.
IppStatus ippsAddProductC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pSrcDst, int len);
/// NaN at negative elements, with ippStsSqrtNegArg; -0 counts as not negative.
IppStatus ippsSqrt_32f_I(Ipp32f* pSrcDst, int len);

// Frames of ch_num channels, len frames. pSrc, pDst, ch_num, len and the channel pointers are
// checked in this order.

IppStatus ippsInterleave_32f(const Ipp32f* const* pSrc, int ch_num, int len, Ipp32f* pDst);
IppStatus ippsDeinterleave_32f(const Ipp32f* pSrc, int ch_num, int len, Ipp32f* const* pDst);

// Real transforms. CCS: N + 2 floats (N + 1 for odd N), the bins X[0] to X[N/2] as real and
// imaginary parts in turn; X[k] = sum over n of x[n] exp(-2 pi i n k / N).
// pSrc may equal pDst. The work buffer needs no alignment; where a transform needs one, null makes
// the call allocate it for its own duration.

/// Sizes in bytes for 2^order samples, order 0 to 29: of a spec, of the memory its set-up needs
/// besides, and of the work buffer of its transforms. All but the first may be 0.
IppStatus ippsFFTGetSize_R_32f(int order, int flag, int hint, int* specSize, int* initSize,
                               int* workSize);
/// *ppSpec is written on success only; it goes back through ippsFFTFree_R_32f.
IppStatus ippsFFTInitAlloc_R_32f(IppsFFTSpec_R_32f** ppSpec, int order, int flag, int hint);
IppStatus ippsFFTFree_R_32f(IppsFFTSpec_R_32f* pSpec);
IppStatus ippsFFTFwd_RToCCS_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsFFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer);
IppStatus ippsFFTInv_CCSToR_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsFFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer);
IppStatus ippsFFTFwd_RToCCS_32f_I(Ipp32f* pSrcDst, const IppsFFTSpec_R_32f* pSpec, Ipp8u* pBuffer);
IppStatus ippsFFTInv_CCSToR_32f_I(Ipp32f* pSrcDst, const IppsFFTSpec_R_32f* pSpec, Ipp8u* pBuffer);

/// Any length from 1; powers of two up to 2^29, others below 2^27.
IppStatus ippsDFTInitAlloc_R_32f(IppsDFTSpec_R_32f** ppSpec, int length, int flag, int hint);
IppStatus ippsDFTFree_R_32f(IppsDFTSpec_R_32f* pSpec);
IppStatus ippsDFTGetBufSize_R_32f(const IppsDFTSpec_R_32f* pSpec, int* pSize);
IppStatus ippsDFTFwd_RToCCS_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsDFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer);
IppStatus ippsDFTInv_CCSToR_32f(const Ipp32f* pSrc, Ipp32f* pDst, const IppsDFTSpec_R_32f* pSpec,
                                Ipp8u* pBuffer);

}  // extern "C"
