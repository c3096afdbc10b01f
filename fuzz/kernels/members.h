#pragma once

// Every entry of every build that this processor runs, by its address: what the dispatch table
// gives, and what only other kernels call.

#include "kernels/builds/all_members.h"

#include <iterator>

namespace Fuzz {

namespace Builds = Orvik::Tesmo::Kernels;

// NOLINTBEGIN(bugprone-macro-parentheses): lists of declarations
#define KALVRIN_FUZZ_MEMBERS(X)                                                                    \
  X(ippsCopy_32f)                                                                                  \
  X(ippsAdd_32f)                                                                                   \
  X(ippsMul_32f)                                                                                   \
  X(ippsMul_32f_I)                                                                                 \
  X(ippsMulC_32f)                                                                                  \
  X(ippsAddProductC_32f)                                                                           \
  X(ippsSqrt_32f_I)                                                                                \
  X(ippsInterleave_32f)                                                                            \
  X(ippsDeinterleave_32f)                                                                          \
  X(ippsZero_32f)                                                                                  \
  X(ippsZero_32fc)                                                                                 \
  X(ippsMulC_32f_I)                                                                                \
  X(ippsConj_32fc)                                                                                 \
  X(ippsMul_32fc)                                                                                  \
  X(ippsMul_32fc_I)                                                                                \
  X(ippsFFTGetSize_R_32f)                                                                          \
  X(ippsFFTInit_R_32f)                                                                             \
  X(ippsFFTInitAlloc_R_32f)                                                                        \
  X(ippsFFTFree_R_32f)                                                                             \
  X(ippsFFTFwd_RToCCS_32f)                                                                         \
  X(ippsFFTInv_CCSToR_32f)                                                                         \
  X(ippsFFTFwd_RToCCS_32f_I)                                                                       \
  X(ippsFFTInv_CCSToR_32f_I)                                                                       \
  X(ippsFFTFwd_RToPack_32f)                                                                        \
  X(ippsFFTInitAlloc_C_32fc)                                                                       \
  X(ippsFFTFree_C_32fc)                                                                            \
  X(ippsFFTGetBufSize_C_32fc)                                                                      \
  X(ippsFFTFwd_CToC_32fc)                                                                          \
  X(ippsFFTInv_CToC_32fc)                                                                          \
  X(ippsDFTInitAlloc_R_32f)                                                                        \
  X(ippsDFTFree_R_32f)                                                                             \
  X(ippsDFTGetBufSize_R_32f)                                                                       \
  X(ippsDFTFwd_RToCCS_32f)                                                                         \
  X(ippsDFTInv_CCSToR_32f)                                                                         \
  X(ippsDFTInitAlloc_C_32fc)                                                                       \
  X(ippsDFTFree_C_32fc)                                                                            \
  X(ippsDFTFwd_CToC_32fc)                                                                          \
  X(ippsDFTInv_CToC_32fc)
#define KALVRIN_FUZZ_POINTER(f) decltype(&Builds::sse3::f) f;
#define KALVRIN_FUZZ_OF_SSE3(f) Builds::sse3::f,
#define KALVRIN_FUZZ_OF_SSSE3(f) Builds::ssse3::f,
#define KALVRIN_FUZZ_OF_SSE3B(f) Builds::sse3b::f,
#define KALVRIN_FUZZ_OF_SSE41(f) Builds::sse41::f,
#define KALVRIN_FUZZ_OF_AVX(f) Builds::avx::f,

struct Members {
  const char* name;
  int needs;  ///< the best variant index of a processor that runs it
  KALVRIN_FUZZ_MEMBERS(KALVRIN_FUZZ_POINTER)
};

inline constexpr Members members[] = {
    {"sse3", 0, KALVRIN_FUZZ_MEMBERS(KALVRIN_FUZZ_OF_SSE3)},
    {"sse3b", 0, KALVRIN_FUZZ_MEMBERS(KALVRIN_FUZZ_OF_SSE3B)},
    {"ssse3", 2, KALVRIN_FUZZ_MEMBERS(KALVRIN_FUZZ_OF_SSSE3)},
    {"sse41", 4, KALVRIN_FUZZ_MEMBERS(KALVRIN_FUZZ_OF_SSE41)},
    {"avx", 5, KALVRIN_FUZZ_MEMBERS(KALVRIN_FUZZ_OF_AVX)},
};
// NOLINTEND(bugprone-macro-parentheses)

/// One that this processor runs, by a choice from 0 to 255.
inline const Members& MembersOf(unsigned choice) {
  static const std::int32_t best = ippBestVariantIndex();
  unsigned count = 1;  // every processor runs the first
  while (count < std::size(members) && members[count].needs <= best)
    ++count;
  return members[choice % count];
}

}  // namespace Fuzz
