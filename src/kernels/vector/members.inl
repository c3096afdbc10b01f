// The vector kernels of one build: checks, then blocks.

#include "kernels/cpu.h"
#include "kernels/memory.h"
#include "kernels/vector/interleave.h"

#include <cstring>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// pDst[i] = op(p[i]...) for i in [0, len); op takes registers and floats. Single elements up to
/// the first register boundary of the destination, then blocks of two registers, then single
/// elements; with sixteen lanes, a part of a register instead of single elements. A destination
/// that is no multiple of 4 bytes never reaches a boundary: its stores are unaligned.
template <class V, class Op, class... Source>
KERNELS_INLINE void ForEachElement(float* pDst, std::ptrdiff_t len, Op op, Source... p) {
  constexpr int block = 2 * V::width;
  std::ptrdiff_t i = 0;
  const auto store = [&]<int count>() {
    V result[count];
    for (int r = 0; r < count; ++r)
      result[r] = op(V::LoadU(p + i + r * V::width)...);
    for (int r = 0; r < count; ++r)
      result[r].StoreU(pDst + i + r * V::width);
  };
  const auto upTo = [&](std::ptrdiff_t end) {
    if constexpr (V::width == 16) {
      if (i <= end - V::width) {
        store.template operator()<1>();
        i += V::width;
      }
      if (i < end) op(V::LoadFirst(p + i, end - i)...).StoreFirst(pDst + i, end - i);
      i = end;
    } else {
      for (; i < end; ++i)
        pDst[i] = op(p[i]...);
    }
  };
  if (len > block) {
    const auto address = reinterpret_cast<std::uintptr_t>(pDst);
    const bool canAlign = address % sizeof(float) == 0;
    const std::ptrdiff_t peel = canAlign ? -(address / sizeof(float)) % V::width : 0;
    upTo(peel);
    for (; i <= len - 2 * block; i += 2 * block)
      store.template operator()<4>();
    if (i <= len - block) {
      store.template operator()<2>();
      i += block;
    }
  }
  upTo(len);
}

static IppStatus ippsCopy_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
  if (!pSrc || !pDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  std::memmove(pDst, pSrc, sizeof(Ipp32f) * static_cast<std::size_t>(len));
  return ippStsNoErr;
}

static IppStatus ippsZero_32f(Ipp32f* pDst, int len) {
  if (!pDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  std::memset(pDst, 0, sizeof(Ipp32f) * static_cast<std::size_t>(len));
  return ippStsNoErr;
}

static IppStatus ippsZero_32fc(Ipp32fc* pDst, int len) {
  if (!pDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  std::memset(static_cast<void*>(pDst), 0, sizeof(Ipp32fc) * static_cast<std::size_t>(len));
  return ippStsNoErr;
}

static IppStatus ippsAdd_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
  if (!pSrc1 || !pSrc2 || !pDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  ForEachElement<Vec>(
      pDst, len, [](auto a, auto b) { return a + b; }, pSrc1, pSrc2);
  return ippStsNoErr;
}

static IppStatus ippsMul_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
  if (!pSrc1 || !pSrc2 || !pDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  ForEachElement<Vec>(
      pDst, len, [](auto a, auto b) { return a * b; }, pSrc1, pSrc2);
  return ippStsNoErr;
}

static IppStatus ippsMul_32f_I(const Ipp32f* pSrc, Ipp32f* pSrcDst, int len) {
  if (!pSrc || !pSrcDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  ForEachElement<Vec>(
      pSrcDst, len, [](auto a, auto b) { return a * b; }, pSrcDst, pSrc);
  return ippStsNoErr;
}

static IppStatus ippsMulC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pDst, int len) {
  if (!pSrc || !pDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  if (val == 1.0f) return ippsCopy_32f(pSrc, pDst, len);
  if (val == 0.0f) return ippsZero_32f(pDst, len);
  ForEachElement<Vec>(
      pDst, len, [val](auto a) { return a * Broadcast<decltype(a)>(val); }, pSrc);
  return ippStsNoErr;
}

static IppStatus ippsMulC_32f_I(Ipp32f val, Ipp32f* pSrcDst, int len) {
  if (!pSrcDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  return val == 1.0f ? ippStsNoErr : ippsMulC_32f(pSrcDst, val, pSrcDst, len);
}

static IppStatus ippsAddProductC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pSrcDst, int len) {
  if (!pSrc || !pSrcDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  const auto add = [val](auto sum, auto a) { return sum + a * Broadcast<decltype(a)>(val); };
  ForEachElement<Vec>(pSrcDst, len, add, pSrcDst, pSrc);
  return ippStsNoErr;
}

static IppStatus ippsConj_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, int len) {
  if (!pSrc || !pDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  const float* s = &pSrc->re;
  float* d = &pDst->re;
  std::ptrdiff_t i = 0;
  const std::ptrdiff_t floats = 2 * static_cast<std::ptrdiff_t>(len);
  for (; i <= floats - Vec::width; i += Vec::width)
    (Vec::LoadU(s + i) ^ SignOdd<Vec>()).StoreU(d + i);
  for (; i < floats; i += 2) {
    d[i] = s[i];
    d[i + 1] = -s[i + 1];
  }
  return ippStsNoErr;
}

static IppStatus ippsMul_32fc(const Ipp32fc* pSrc1, const Ipp32fc* pSrc2, Ipp32fc* pDst, int len) {
  if (!pSrc1 || !pSrc2 || !pDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  const float *a = &pSrc1->re, *b = &pSrc2->re;
  float* d = &pDst->re;
  std::ptrdiff_t i = 0;
  const std::ptrdiff_t floats = 2 * static_cast<std::ptrdiff_t>(len);
  for (; i <= floats - Vec::width; i += Vec::width)
    MulInterleaved(Vec::LoadU(a + i), Vec::LoadU(b + i)).StoreU(d + i);
  for (; i < floats; i += 2) {
    const float re = a[i] * b[i] - a[i + 1] * b[i + 1];
    d[i + 1] = a[i + 1] * b[i] + a[i] * b[i + 1];
    d[i] = re;
  }
  return ippStsNoErr;
}

static IppStatus ippsMul_32fc_I(const Ipp32fc* pSrc, Ipp32fc* pSrcDst, int len) {
  return ippsMul_32fc(pSrcDst, pSrc, pSrcDst, len);
}

/// For the time of a kernel: no exception traps, and at the end the thread's control bits are what
/// they were, with the flags raised meanwhile but for "invalid" and "divided by zero".
class QuietExceptions {
public:
  KERNELS_INLINE QuietExceptions() : control(ControlRegister::Read()) {
    ControlRegister::Write(ControlRegister::WithoutTraps(control) & ~ControlRegister::raised);
  }
  KERNELS_INLINE ~QuietExceptions() {
    ControlRegister::Write(control | (ControlRegister::Read() & kept));
  }
  QuietExceptions(const QuietExceptions&) = delete;
  QuietExceptions& operator=(const QuietExceptions&) = delete;

private:
  static constexpr ControlRegister::Bits kept =
      ControlRegister::raised & ~(ControlRegister::invalid | ControlRegister::divisionByZero);
  const ControlRegister::Bits control;
};

static IppStatus ippsSqrt_32f_I(Ipp32f* pSrcDst, int len) {
  if (!pSrcDst) return ippStsNullPtrErr;
  if (len < 1) return ippStsSizeErr;
  const QuietExceptions quiet;  // a negative element is reported instead
  std::ptrdiff_t i = 0;
  Vec below = Vec::Zero();
  for (; i <= len - Vec::width; i += Vec::width) {
    const Vec x = Vec::LoadU(pSrcDst + i);
    below = below | Below(x, Vec::Zero());
    Sqrt(x).StoreU(pSrcDst + i);
  }
  bool negative = AnySign(below);
  for (; i < len; ++i) {
    negative |= pSrcDst[i] < 0.0f;
    pSrcDst[i] = Sqrt(pSrcDst[i]);
  }
  return negative ? ippStsSqrtNegArg : ippStsNoErr;
}

/// The checks that both directions share: the flat buffer, the channel count, the length, then
/// every channel. The result is an error, or the status of the finished work.
template <class T>
static IppStatus CheckChannels(const Ipp32f* flat, T* const* channel, int ch_num, int len) {
  if (!flat || !channel) return ippStsNullPtrErr;
  if (ch_num < 1) return ippStsNumChannelsErr;
  if (len < 1) return ippStsSizeErr;
  bool aligned = IsAligned(flat, 16);
  for (int c = 0; c < ch_num; ++c) {
    if (!channel[c]) return ippStsNullPtrErr;
    aligned &= IsAligned(channel[c], 16);
  }
  return aligned ? ippStsNoErr : ippStsMisalignedBuf;
}

static IppStatus ippsInterleave_32f(const Ipp32f* const* pSrc, int ch_num, int len, Ipp32f* pDst) {
  const IppStatus status = CheckChannels(pDst, pSrc, ch_num, len);
  if (status >= ippStsNoErr) InterleaveChannels<Vec>(pSrc, ch_num, len, pDst);
  return status;
}

static IppStatus ippsDeinterleave_32f(const Ipp32f* pSrc, int ch_num, int len,
                                      Ipp32f* const* pDst) {
  const IppStatus status = CheckChannels(pSrc, pDst, ch_num, len);
  if (status >= ippStsNoErr) DeinterleaveChannels<Vec>(pSrc, ch_num, len, pDst);
  return status;
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
