#include "primitives/signal_primitives.h"

#include "failure/sections.h"
#include "kernels/ipps.h"

#include <climits>

namespace {
RT_CONST const char SourceUnit[] = "src/primitives/signal_primitives.cpp";
}

// The hook's texts are arrays of their own: a plain literal would land outside RT_CONST.
#define REPORT(operation, text)                                                                    \
  do {                                                                                             \
    RT_CONST static const char expression[] = text;                                                \
    RT_CONST static const char function[] = "SignalPrimitives::" #operation;                       \
    ReportAssertionFailure(expression, SourceUnit, __LINE__, function, nullptr);                   \
  } while (false)

#define CALL_KERNEL(operation, call)                                                               \
  do {                                                                                             \
    if ((call) != ippStsNoErr) [[unlikely]]                                                        \
      REPORT(operation, "(" #call ") == ippStsNoErr");                                             \
  } while (false)

namespace Orvik::Tesmo::SignalPrimitives {

RT_CODE std::int32_t IntFromSize(std::size_t len) {
  if (!(len <= INT_MAX)) [[unlikely]]
    REPORT(IntFromSize, "len <= INT_MAX");
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(len));
}

RT_CODE void Copy(const float* pSrc, float* pDst, std::size_t len) {
  CALL_KERNEL(Copy, ippsCopy_32f(pSrc, pDst, IntFromSize(len)));
}

RT_CODE void Deinterleave(const float* pSrc, std::int32_t ch_num, std::int32_t len,
                          float* const* pDst) {
  CALL_KERNEL(Deinterleave, ippsDeinterleave_32f(pSrc, ch_num, len, pDst));
}

RT_CODE void Interleave(const float* const* pSrc, std::int32_t ch_num, std::int32_t len,
                        float* pDst) {
  CALL_KERNEL(Interleave, ippsInterleave_32f(pSrc, ch_num, len, pDst));
}

RT_CODE void Add(const float* pSrc1, const float* pSrc2, float* pDst, std::size_t len) {
  CALL_KERNEL(Add, ippsAdd_32f(pSrc1, pSrc2, pDst, IntFromSize(len)));
}

RT_CODE void AddProductC(const float* pSrc, float val, float* pSrcDst, std::size_t len) {
  CALL_KERNEL(AddProductC, ippsAddProductC_32f(pSrc, val, pSrcDst, IntFromSize(len)));
}

RT_CODE void MulC(const float* pSrc, float val, float* pDst, std::size_t len) {
  CALL_KERNEL(MulC, ippsMulC_32f(pSrc, val, pDst, IntFromSize(len)));
}

RT_CODE void Mul(const float* pSrc1, const float* pSrc2, float* pDst, std::size_t len) {
  CALL_KERNEL(Mul, ippsMul_32f(pSrc1, pSrc2, pDst, IntFromSize(len)));
}

RT_CODE void Mul_I(const float* pSrc, float* pSrcDst, std::size_t len) {
  CALL_KERNEL(Mul_I, ippsMul_32f_I(pSrc, pSrcDst, IntFromSize(len)));
}

RT_CODE void Sqrt_I(float* pSrcDst, std::size_t len) {
  CALL_KERNEL(Sqrt_I, ippsSqrt_32f_I(pSrcDst, IntFromSize(len)));
}

}  // namespace Orvik::Tesmo::SignalPrimitives
