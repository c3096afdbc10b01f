#include "kernels/ipps.h"

#include <cmath>
#include <cstring>

namespace {
bool Misaligned(const void* p) { return (reinterpret_cast<std::uintptr_t>(p) & 15) != 0; }
}  // namespace

extern "C" {

IppStatus ippsCopy_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
  if (!pSrc || !pDst)
    return ippStsNullPtrErr;
  if (len < 1)
    return ippStsSizeErr;
  std::memmove(pDst, pSrc, sizeof(Ipp32f) * static_cast<std::size_t>(len));
  return ippStsNoErr;
}

IppStatus ippsAdd_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
  if (!pSrc1 || !pSrc2 || !pDst)
    return ippStsNullPtrErr;
  if (len < 1)
    return ippStsSizeErr;
  for (int i = 0; i < len; ++i)
    pDst[i] = pSrc1[i] + pSrc2[i];
  return ippStsNoErr;
}

IppStatus ippsMul_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
  if (!pSrc1 || !pSrc2 || !pDst)
    return ippStsNullPtrErr;
  if (len < 1)
    return ippStsSizeErr;
  for (int i = 0; i < len; ++i)
    pDst[i] = pSrc1[i] * pSrc2[i];
  return ippStsNoErr;
}

IppStatus ippsMul_32f_I(const Ipp32f* pSrc, Ipp32f* pSrcDst, int len) {
  return ippsMul_32f(pSrc, pSrcDst, pSrcDst, len);
}

IppStatus ippsMulC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pDst, int len) {
  if (!pSrc || !pDst)
    return ippStsNullPtrErr;
  if (len < 1)
    return ippStsSizeErr;
  if (val == 1.0f)
    return ippsCopy_32f(pSrc, pDst, len);
  for (int i = 0; i < len; ++i)
    pDst[i] = val == 0.0f ? 0.0f : pSrc[i] * val;
  return ippStsNoErr;
}

IppStatus ippsAddProductC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pSrcDst, int len) {
  if (!pSrc || !pSrcDst)
    return ippStsNullPtrErr;
  if (len < 1)
    return ippStsSizeErr;
  for (int i = 0; i < len; ++i)
    pSrcDst[i] += pSrc[i] * val;
  return ippStsNoErr;
}

IppStatus ippsSqrt_32f_I(Ipp32f* pSrcDst, int len) {
  if (!pSrcDst)
    return ippStsNullPtrErr;
  if (len < 1)
    return ippStsSizeErr;
  IppStatus status = ippStsNoErr;
  for (int i = 0; i < len; ++i) {
    if (pSrcDst[i] < 0.0f)
      status = ippStsSqrtNegArg;
    pSrcDst[i] = std::sqrt(pSrcDst[i]);
  }
  return status;
}

IppStatus ippsInterleave_32f(const Ipp32f* const* pSrc, int ch_num, int len, Ipp32f* pDst) {
  if (!pSrc || !pDst)
    return ippStsNullPtrErr;
  if (ch_num < 1)
    return ippStsNumChannelsErr;
  if (len < 1)
    return ippStsSizeErr;
  IppStatus status = Misaligned(pDst) ? ippStsMisalignedBuf : ippStsNoErr;
  for (int c = 0; c < ch_num; ++c) {
    if (!pSrc[c])
      return ippStsNullPtrErr;
    if (Misaligned(pSrc[c]))
      status = ippStsMisalignedBuf;
  }
  for (int i = 0; i < len; ++i)
    for (int c = 0; c < ch_num; ++c)
      *pDst++ = pSrc[c][i];
  return status;
}

IppStatus ippsDeinterleave_32f(const Ipp32f* pSrc, int ch_num, int len, Ipp32f* const* pDst) {
  if (!pSrc || !pDst)
    return ippStsNullPtrErr;
  if (ch_num < 1)
    return ippStsNumChannelsErr;
  if (len < 1)
    return ippStsSizeErr;
  IppStatus status = Misaligned(pSrc) ? ippStsMisalignedBuf : ippStsNoErr;
  for (int c = 0; c < ch_num; ++c) {
    if (!pDst[c])
      return ippStsNullPtrErr;
    if (Misaligned(pDst[c]))
      status = ippStsMisalignedBuf;
  }
  for (int c = 0; c < ch_num; ++c)
    for (int i = 0; i < len; ++i)
      pDst[c][i] = pSrc[static_cast<std::ptrdiff_t>(i) * ch_num + c];
  return status;
}

}  // extern "C"
