#pragma once

// A build is the whole library compiled once more for one set of instructions, with plan limits of
// its own: one file, which fills one Build, and one row in builds.def of its architecture.

#include "kernels/cpu.h"
#include "kernels/ipps.h"

struct IppsFFTSpec_C_32fc;

namespace Orvik::Tesmo::Kernels {

/// From this complex order on (until the next row), a large plan cuts 2^split pieces and gathers
/// blocks of 2^blockBits values.
struct LargeRow {
  int fromOrder, split, blockBits;
};

/// Where plans change. Orders are those of the real transform; a complex transform of order L has
/// the limits of L + 1.
struct Limits {
  int vecWidth;     ///< floats in a register: the group size of the stage layout and its tables
  int directMax;    ///< direct complex kernels up to here, from order 5
  int flatMax;      ///< then the flat plan, whose first pass reverses the bits by itself
  int reversedMax;  ///< then bit reversal and the passes on reversed data; flatMax if there is none
  LargeRow large[4];  ///< then the large plan; unused rows repeat the last
};

/// When a build runs.
struct Choice {
  bool CpuFeatures::*needs[3];  ///< null: nothing beyond what all builds share
  bool byHandOnly;              ///< ippBestVariantIndex never returns it
};

/// The entries of one build: arguments, results and statuses in ipps.h. The code of a build calls
/// its own functions, never the dispatched ones.
struct Build {
  const char* name;
  std::int32_t index;  ///< of ippVariantIndex
  Choice choice;
  Limits limits;

  decltype(&::ippsCopy_32f) ippsCopy_32f;
  decltype(&::ippsAdd_32f) ippsAdd_32f;
  decltype(&::ippsMul_32f) ippsMul_32f;
  decltype(&::ippsMul_32f_I) ippsMul_32f_I;
  decltype(&::ippsMulC_32f) ippsMulC_32f;
  decltype(&::ippsAddProductC_32f) ippsAddProductC_32f;
  decltype(&::ippsSqrt_32f_I) ippsSqrt_32f_I;
  decltype(&::ippsInterleave_32f) ippsInterleave_32f;
  decltype(&::ippsDeinterleave_32f) ippsDeinterleave_32f;

  decltype(&::ippsFFTGetSize_R_32f) ippsFFTGetSize_R_32f;
  decltype(&::ippsFFTInitAlloc_R_32f) ippsFFTInitAlloc_R_32f;
  decltype(&::ippsFFTFree_R_32f) ippsFFTFree_R_32f;
  decltype(&::ippsFFTFwd_RToCCS_32f) ippsFFTFwd_RToCCS_32f;
  decltype(&::ippsFFTInv_CCSToR_32f) ippsFFTInv_CCSToR_32f;
  decltype(&::ippsFFTFwd_RToCCS_32f_I) ippsFFTFwd_RToCCS_32f_I;
  decltype(&::ippsFFTInv_CCSToR_32f_I) ippsFFTInv_CCSToR_32f_I;

  decltype(&::ippsDFTInitAlloc_R_32f) ippsDFTInitAlloc_R_32f;
  decltype(&::ippsDFTFree_R_32f) ippsDFTFree_R_32f;
  decltype(&::ippsDFTGetBufSize_R_32f) ippsDFTGetBufSize_R_32f;
  decltype(&::ippsDFTFwd_RToCCS_32f) ippsDFTFwd_RToCCS_32f;
  decltype(&::ippsDFTInv_CCSToR_32f) ippsDFTInv_CCSToR_32f;

  // What only other kernels of the same build call. Pointers are checked first, then `len`, which
  // is at least 1.

  IppStatus (*ippsZero_32f)(Ipp32f* pDst, int len);
  IppStatus (*ippsZero_32fc)(Ipp32fc* pDst, int len);
  /// val == 1 does nothing, val == 0 writes zeros.
  IppStatus (*ippsMulC_32f_I)(Ipp32f val, Ipp32f* pSrcDst, int len);
  IppStatus (*ippsConj_32fc)(const Ipp32fc* pSrc, Ipp32fc* pDst, int len);
  IppStatus (*ippsMul_32fc)(const Ipp32fc* pSrc1, const Ipp32fc* pSrc2, Ipp32fc* pDst, int len);
  IppStatus (*ippsMul_32fc_I)(const Ipp32fc* pSrc, Ipp32fc* pSrcDst, int len);

  /// A real spec in the caller's memory: specMem and initMem have the sizes that
  /// ippsFFTGetSize_R_32f returns, at any alignment; initMem is free again afterwards.
  IppStatus (*ippsFFTInit_R_32f)(IppsFFTSpec_R_32f** ppSpec, int order, int flag, int hint,
                                 Ipp8u* specMem, Ipp8u* initMem);
  /// The forward transform in packed order, N floats: X[0], X[N/2] (from N = 2), Re X[1], Im X[1]
  /// and so on. Statuses and work buffer as ippsFFTFwd_RToCCS_32f.
  decltype(&::ippsFFTFwd_RToCCS_32f) ippsFFTFwd_RToPack_32f;

  // Complex transforms of 2^order values, order 0 to 28: flags, hint, statuses and work buffer as
  // the real ones. pSrc may equal pDst.

  IppStatus (*ippsFFTInitAlloc_C_32fc)(IppsFFTSpec_C_32fc** ppSpec, int order, int flag, int hint);
  IppStatus (*ippsFFTFree_C_32fc)(IppsFFTSpec_C_32fc* pSpec);
  /// Bytes of work buffer, may be 0.
  IppStatus (*ippsFFTGetBufSize_C_32fc)(const IppsFFTSpec_C_32fc* pSpec, int* pSize);
  IppStatus (*ippsFFTFwd_CToC_32fc)(const Ipp32fc* pSrc, Ipp32fc* pDst,
                                    const IppsFFTSpec_C_32fc* pSpec, Ipp8u* pBuffer);
  IppStatus (*ippsFFTInv_CToC_32fc)(const Ipp32fc* pSrc, Ipp32fc* pDst,
                                    const IppsFFTSpec_C_32fc* pSpec, Ipp8u* pBuffer);

  // Complex transforms of any length: statuses and limits as the real ones. pSrc may equal pDst.

  decltype(&::ippsDFTInitAlloc_R_32f) ippsDFTInitAlloc_C_32fc;
  decltype(&::ippsDFTFree_R_32f) ippsDFTFree_C_32fc;
  IppStatus (*ippsDFTFwd_CToC_32fc)(const Ipp32fc* pSrc, Ipp32fc* pDst,
                                    const IppsDFTSpec_R_32f* pSpec, Ipp8u* pBuffer);
  IppStatus (*ippsDFTInv_CToC_32fc)(const Ipp32fc* pSrc, Ipp32fc* pDst,
                                    const IppsDFTSpec_R_32f* pSpec, Ipp8u* pBuffer);
};

#if defined(__x86_64__)
#define KERNELS_BUILDS "kernels/x86_64/builds.def"
#elif defined(__aarch64__)
#define KERNELS_BUILDS "kernels/arm64/builds.def"
#endif

#define BUILD(name, index, ...)                                                                    \
  namespace name {                                                                                 \
  constexpr std::int32_t variantIndex = index;                                                     \
  extern const Build build;                                                                        \
  }
#include KERNELS_BUILDS
#undef BUILD
inline constexpr const Build* builds[] = {
#define BUILD(name, ...) &name::build,
#include KERNELS_BUILDS
#undef BUILD
};

/// Whether a processor with these features runs it; of this processor, and its system.
bool Runs(const Build& build, const CpuFeatures& features);
bool RunsHere(const Build& build);

/// The indices that ippVariantIndex takes: 0 to 5 on every processor, and those of further builds.
constexpr int variantCount = [] {
  int count = 6;
#define BUILD(name, ...)                                                                           \
  if (count <= name::variantIndex) count = name::variantIndex + 1;
#include KERNELS_BUILDS
#undef BUILD
  return count;
}();
/// A dispatched entry and whose code stands at each index.
struct Entry {
  const char* name;
  const Build* const* variants;
};
/// All of them; `count` is written.
const Entry* Entries(int& count);
/// Whose code a planner runs at the index of the moment.
const Build& CurrentBuild();

}  // namespace Orvik::Tesmo::Kernels
