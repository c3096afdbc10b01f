#pragma once

// Every entry of every build that this processor runs, by its address: what the dispatch table
// gives, and what only other kernels call.

#include "kernels/builds/all_members.h"

#include <cstdlib>
#include <vector>

namespace KernelTest {

namespace Builds = Orvik::Tesmo::Kernels;

// NOLINTBEGIN(bugprone-macro-parentheses): lists of declarations
#define KALVRIN_MEMBERS(X)                                                                         \
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
#define KALVRIN_POINTER(f) decltype(&Builds::sse3::f) f;
#define KALVRIN_OF_SSE3(f) Builds::sse3::f,
#define KALVRIN_OF_SSSE3(f) Builds::ssse3::f,
#define KALVRIN_OF_SSE3B(f) Builds::sse3b::f,
#define KALVRIN_OF_SSE41(f) Builds::sse41::f,
#define KALVRIN_OF_AVX(f) Builds::avx::f,

struct Members {
  const char* name;
  int index;  ///< of the variant
  KALVRIN_MEMBERS(KALVRIN_POINTER)
};

/// The builds that this processor runs; KALVRIN_TEST_BUILD, the index of a variant, leaves one of
/// them.
inline const std::vector<Members>& AllMembers() {
  static const std::vector<Members> runnable = [] {
    static constexpr Members all[] = {
        {"sse3", 0, KALVRIN_MEMBERS(KALVRIN_OF_SSE3)},
        {"sse3b", 3, KALVRIN_MEMBERS(KALVRIN_OF_SSE3B)},
        {"ssse3", 2, KALVRIN_MEMBERS(KALVRIN_OF_SSSE3)},
        {"sse41", 4, KALVRIN_MEMBERS(KALVRIN_OF_SSE41)},
        {"avx", 5, KALVRIN_MEMBERS(KALVRIN_OF_AVX)},
    };
    const char* chosen = std::getenv("KALVRIN_TEST_BUILD");  // NOLINT(concurrency-mt-unsafe)
    std::vector<Members> members;
    for (const Members& m : all)
      if ((m.index <= ippBestVariantIndex() || m.index == 3) &&
          (!chosen || m.index == *chosen - '0'))
        members.push_back(m);
    return members;
  }();
  return runnable;
}
// NOLINTEND(bugprone-macro-parentheses)

/// One of them, by a choice from 0 to 255.
inline const Members& MembersOf(unsigned choice) {
  return AllMembers()[choice % AllMembers().size()];
}

}  // namespace KernelTest
