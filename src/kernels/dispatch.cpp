#include "kernels/dispatch.h"

#include "kernels/builds/all_members.h"

using namespace Orvik::Tesmo::Kernels;

// Which build stands at which index, by the letters of who shares what: a build that has nothing of
// its own to say about an entry takes another's.
#define AABCDE(f)                                                                                  \
  { sse3::f, sse3::f, ssse3::f, sse3b::f, sse41::f, avx::f }
#define AABBCD(f)                                                                                  \
  { sse3::f, sse3::f, sse3b::f, sse3b::f, sse41::f, avx::f }
#define AABBAC(f)                                                                                  \
  { sse3::f, sse3::f, sse3b::f, sse3b::f, sse3::f, avx::f }
#define AAABAA(f)                                                                                  \
  { sse3::f, sse3::f, sse3::f, sse3b::f, sse3::f, sse3::f }
#define AAAAAA(f)                                                                                  \
  { sse3::f, sse3::f, sse3::f, sse3::f, sse3::f, sse3::f }

// name, parameters, arguments, sharing
#define VECTOR_ENTRIES(X)                                                                          \
  X(ippsCopy_32f, (const Ipp32f* s, Ipp32f* d, int n), (s, d, n), AABBCD)                          \
  X(ippsMulC_32f, (const Ipp32f* s, Ipp32f v, Ipp32f* d, int n), (s, v, d, n), AABBCD)             \
  X(ippsMul_32f_I, (const Ipp32f* s, Ipp32f* d, int n), (s, d, n), AABBAC)                         \
  X(ippsAdd_32f, (const Ipp32f* s, const Ipp32f* t, Ipp32f* d, int n), (s, t, d, n), AABBAC)       \
  X(ippsMul_32f, (const Ipp32f* s, const Ipp32f* t, Ipp32f* d, int n), (s, t, d, n), AABBAC)       \
  X(ippsSqrt_32f_I, (Ipp32f * d, int n), (d, n), AABBCD)                                           \
  X(ippsAddProductC_32f, (const Ipp32f* s, Ipp32f v, Ipp32f* d, int n), (s, v, d, n), AABBAC)      \
  X(ippsInterleave_32f, (const Ipp32f* const* s, int c, int n, Ipp32f* d), (s, c, n, d), AABBCD)   \
  X(ippsDeinterleave_32f, (const Ipp32f* s, int c, int n, Ipp32f* const* d), (s, c, n, d), AABBCD)

#define FFT_ENTRIES(X)                                                                             \
  X(ippsFFTGetSize_R_32f, (int o, int f, int h, int* s, int* i, int* w), (o, f, h, s, i, w),       \
    AABCDE)                                                                                        \
  X(ippsFFTInitAlloc_R_32f, (IppsFFTSpec_R_32f * *p, int o, int f, int h), (p, o, f, h), AABCDE)   \
  X(ippsFFTFree_R_32f, (IppsFFTSpec_R_32f * p), (p), AAABAA)                                       \
  X(ippsFFTFwd_RToCCS_32f, (const Ipp32f* s, Ipp32f* d, const IppsFFTSpec_R_32f* p, Ipp8u* b),     \
    (s, d, p, b), AABCDE)                                                                          \
  X(ippsFFTInv_CCSToR_32f, (const Ipp32f* s, Ipp32f* d, const IppsFFTSpec_R_32f* p, Ipp8u* b),     \
    (s, d, p, b), AABCDE)                                                                          \
  X(ippsFFTFwd_RToCCS_32f_I, (Ipp32f * d, const IppsFFTSpec_R_32f* p, Ipp8u* b), (d, p, b),        \
    AABCDE)                                                                                        \
  X(ippsFFTInv_CCSToR_32f_I, (Ipp32f * d, const IppsFFTSpec_R_32f* p, Ipp8u* b), (d, p, b), AABCDE)

#define DFT_ENTRIES(X)                                                                             \
  X(ippsDFTInitAlloc_R_32f, (IppsDFTSpec_R_32f * *p, int n, int f, int h), (p, n, f, h), AABCDE)   \
  X(ippsDFTFree_R_32f, (IppsDFTSpec_R_32f * p), (p), AAABAA)                                       \
  X(ippsDFTGetBufSize_R_32f, (const IppsDFTSpec_R_32f* p, int* s), (p, s), AAAAAA)                 \
  X(ippsDFTFwd_RToCCS_32f, (const Ipp32f* s, Ipp32f* d, const IppsDFTSpec_R_32f* p, Ipp8u* b),     \
    (s, d, p, b), AABCDE)                                                                          \
  X(ippsDFTInv_CCSToR_32f, (const Ipp32f* s, Ipp32f* d, const IppsDFTSpec_R_32f* p, Ipp8u* b),     \
    (s, d, p, b), AABCDE)

#define ALL_ENTRIES(X) VECTOR_ENTRIES(X) FFT_ENTRIES(X) DFT_ENTRIES(X)

std::int32_t ippVariantIndex = 0;

// A parameter list and a list of arguments bring their own parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define TABLE(name, params, args, sharing)                                                         \
  static IppStatus(*name##_variants[variantCount]) params = sharing(name);                         \
  extern "C" IppStatus name params {                                                               \
    return name##_variants[ippVariantIndex] args;                                                  \
  }
ALL_ENTRIES(TABLE)
// NOLINTEND(bugprone-macro-parentheses)

#define ROW(name, params, args, sharing)                                                           \
  {#name, reinterpret_cast<const void* const*>(name##_variants)},
const VariantRow* Orvik::Tesmo::Kernels::VariantRows(int& count) {
  static const VariantRow rows[] = {ALL_ENTRIES(ROW)};
  count = sizeof rows / sizeof rows[0];
  return rows;
}
