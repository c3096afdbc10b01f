#include "kernels/build.h"

#include <array>

using namespace Orvik::Tesmo::Kernels;

namespace {

/// The entries of one group run the same build at each index, which need not be the build of that
/// index.
enum Group { Transforms, Moves, Arithmetic, Releases, Sizes, groupCount };

/// Whose code runs at which index, by group.
using Row = std::array<const Build*, groupCount>;
constexpr std::array<Row, variantCount> rows = [] {
  std::array<Row, variantCount> table{};
  bool isFirst = true;
#define BUILD(name, index, moves, arithmetic, releases, ...)                                       \
  table[index] = {&name::build, &moves::build, &arithmetic::build, &releases::build, builds[0]};   \
  if (isFirst) table.fill(table[index]);                                                           \
  isFirst = false;
#include KERNELS_BUILDS
#undef BUILD
  return table;
}();
/// One group by index: an entry loads the index and the build, and jumps.
template <Group group>
constexpr std::array<const Build*, variantCount> variantsOf = [] {
  std::array<const Build*, variantCount> variants{};
  for (int i = 0; i < variantCount; ++i)
    variants[i] = rows[i][group];
  return variants;
}();

}  // namespace

std::int32_t ippVariantIndex = 0;

// name, parameters, arguments, group
#define VECTOR_ENTRIES(X)                                                                          \
  X(ippsCopy_32f, (const Ipp32f* s, Ipp32f* d, int n), (s, d, n), Moves)                           \
  X(ippsMulC_32f, (const Ipp32f* s, Ipp32f v, Ipp32f* d, int n), (s, v, d, n), Moves)              \
  X(ippsMul_32f_I, (const Ipp32f* s, Ipp32f* d, int n), (s, d, n), Arithmetic)                     \
  X(ippsAdd_32f, (const Ipp32f* s, const Ipp32f* t, Ipp32f* d, int n), (s, t, d, n), Arithmetic)   \
  X(ippsMul_32f, (const Ipp32f* s, const Ipp32f* t, Ipp32f* d, int n), (s, t, d, n), Arithmetic)   \
  X(ippsSqrt_32f_I, (Ipp32f * d, int n), (d, n), Moves)                                            \
  X(ippsAddProductC_32f, (const Ipp32f* s, Ipp32f v, Ipp32f* d, int n), (s, v, d, n), Arithmetic)  \
  X(ippsInterleave_32f, (const Ipp32f* const* s, int c, int n, Ipp32f* d), (s, c, n, d), Moves)    \
  X(ippsDeinterleave_32f, (const Ipp32f* s, int c, int n, Ipp32f* const* d), (s, c, n, d), Moves)

#define FFT_ENTRIES(X)                                                                             \
  X(ippsFFTGetSize_R_32f, (int o, int f, int h, int* s, int* i, int* w), (o, f, h, s, i, w),       \
    Transforms)                                                                                    \
  X(ippsFFTInitAlloc_R_32f, (IppsFFTSpec_R_32f * *p, int o, int f, int h), (p, o, f, h),           \
    Transforms)                                                                                    \
  X(ippsFFTFree_R_32f, (IppsFFTSpec_R_32f * p), (p), Releases)                                     \
  X(ippsFFTFwd_RToCCS_32f, (const Ipp32f* s, Ipp32f* d, const IppsFFTSpec_R_32f* p, Ipp8u* b),     \
    (s, d, p, b), Transforms)                                                                      \
  X(ippsFFTInv_CCSToR_32f, (const Ipp32f* s, Ipp32f* d, const IppsFFTSpec_R_32f* p, Ipp8u* b),     \
    (s, d, p, b), Transforms)                                                                      \
  X(ippsFFTFwd_RToCCS_32f_I, (Ipp32f * d, const IppsFFTSpec_R_32f* p, Ipp8u* b), (d, p, b),        \
    Transforms)                                                                                    \
  X(ippsFFTInv_CCSToR_32f_I, (Ipp32f * d, const IppsFFTSpec_R_32f* p, Ipp8u* b), (d, p, b),        \
    Transforms)

#define DFT_ENTRIES(X)                                                                             \
  X(ippsDFTInitAlloc_R_32f, (IppsDFTSpec_R_32f * *p, int n, int f, int h), (p, n, f, h),           \
    Transforms)                                                                                    \
  X(ippsDFTFree_R_32f, (IppsDFTSpec_R_32f * p), (p), Releases)                                     \
  X(ippsDFTGetBufSize_R_32f, (const IppsDFTSpec_R_32f* p, int* s), (p, s), Sizes)                  \
  X(ippsDFTFwd_RToCCS_32f, (const Ipp32f* s, Ipp32f* d, const IppsDFTSpec_R_32f* p, Ipp8u* b),     \
    (s, d, p, b), Transforms)                                                                      \
  X(ippsDFTInv_CCSToR_32f, (const Ipp32f* s, Ipp32f* d, const IppsDFTSpec_R_32f* p, Ipp8u* b),     \
    (s, d, p, b), Transforms)

#define ALL_ENTRIES(X) VECTOR_ENTRIES(X) FFT_ENTRIES(X) DFT_ENTRIES(X)

// A parameter list and a list of arguments bring their own parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define STUB(name, params, args, group)                                                            \
  extern "C" IppStatus name params {                                                               \
    return variantsOf<group>[static_cast<std::size_t>(ippVariantIndex)] -> name args;              \
  }
ALL_ENTRIES(STUB)
// NOLINTEND(bugprone-macro-parentheses)

#define ROW(name, params, args, group) {#name, variantsOf<group>.data()},
const Entry* Orvik::Tesmo::Kernels::Entries(int& count) {
  static const Entry entries[] = {ALL_ENTRIES(ROW)};
  count = sizeof entries / sizeof entries[0];
  return entries;
}

const Build& Orvik::Tesmo::Kernels::CurrentBuild() {
  return *variantsOf<Transforms>[static_cast<std::size_t>(ippVariantIndex)];
}

bool Orvik::Tesmo::Kernels::Runs(const Build& build, const CpuFeatures& features) {
  for (bool CpuFeatures::*const need : build.choice.needs)
    if (need && !(features.*need)) return false;
  return true;
}

bool Orvik::Tesmo::Kernels::RunsHere(const Build& build) {
  return Runs(build, FeaturesOfThis());
}

std::int32_t Orvik::Tesmo::Kernels::BestVariant(const CpuFeatures& features) {
  std::int32_t best = 0;
  for (const Build* build : builds)
    if (!build->choice.byHandOnly && build->index > best && Runs(*build, features))
      best = build->index;
  return best;
}

extern "C" std::int32_t ippBestVariantIndex() {
  return BestVariant(FeaturesOfThis());
}
