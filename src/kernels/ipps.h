#pragma once

// The kernel library's one header: numeric kernels on 32-bit floats behind a table dispatch.
// C linkage, plain pointers, a status for every call. Nothing here throws; nothing but the planners
// allocates.
//
// Argument checks come first, pointers before lengths; a refused call has written nothing. A
// positive status is a warning after complete work.

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
  ippStsSizeErr = -6,
  ippStsNullPtrErr = -8,
  ippStsMemAllocErr = -9,
  ippStsFftOrderErr = -15,
  ippStsFftFlagErr = -16,
  ippStsContextMatchErr = -17,
  ippStsNumChannelsErr = -53,
};

extern "C" {

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

}  // extern "C"
