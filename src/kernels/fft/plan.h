#pragma once

// Plans as data: what runs, in which order, on which tables, as pure functions of the order, the
// flag and a build's limits. Nothing here runs a transform.
//
// A real transform of N = 2^order samples runs as a complex one of M = N/2 = 2^L values and a
// recombination. All tables but the last two hold floats in the order in which the passes read
// them.

#include "kernels/build.h"
#include "kernels/roots.h"

#include <array>
#include <cstdint>

namespace Orvik::Tesmo::Kernels {

constexpr int maxLevels = 2;

/// A plan: this header and, behind it at 32-byte boundaries in the same block, its tables. Written
/// by the planner alone. `L` is the complex order, M = 2^L.
struct FftSpec {
  std::int32_t id;  ///< liveReal or liveComplex; 0 once freed, or when its set-up failed
  std::int32_t order;
  std::int32_t fwdScaled, invScaled;  ///< which directions multiply by `scale`
  float scale;
  std::int32_t hint;
  std::int32_t workSize;  ///< bytes
  std::int32_t owned;     ///< the block goes back to ippsFree with the spec
  const std::int32_t* bitRev;
  const float* twiddles;  ///< of the flat plan; the sub-transforms' in a large plan
  const float *recombFwd, *recombInv;
  const float* levelTwiddles[maxLevels];  ///< of the large plan, outermost first

  static constexpr std::int32_t liveReal = 6, liveComplex = 4;
};

constexpr int maxOrder = 29;  ///< of a real transform; a complex one ends one lower

enum class Method { DirectReal, DirectComplex, Flat, Reversed, Large };
constexpr Method MethodOf(const Limits& limits, int order) {
  return order <= 4                    ? Method::DirectReal
         : order <= limits.directMax   ? Method::DirectComplex
         : order <= limits.flatMax     ? Method::Flat
         : order <= limits.reversedMax ? Method::Reversed
                                       : Method::Large;
}

struct RadixList {
  int count;
  int radix[8];
};
/// The passes of a flat plan, L from 6 on: always radix 4 first, then 8 where it pays and 4 else.
/// With groups of 16 (L from 8 on), the first two are one of radix 16.
constexpr RadixList StageRadices(int L, int vecWidth) {
  if (vecWidth == 16) {
    RadixList list{2, {4, 4}};
    for (int left = L - 4; left > 0; left -= left % 3 == 0 ? 3 : 2)
      list.radix[list.count++] = left % 3 == 0 ? 8 : 4;
    return list;
  }
  RadixList list{1, {4}};
  for (int span = 2; span < L;) {
    const int left = L - span;
    const bool early = span == 2 && (L == 7 || L == 10 || L == 11 || L == 13 || L == 14);
    const bool eight = left == 3 || (left >= 5 && span >= 3) || early;
    list.radix[list.count++] = eight ? 8 : 4;
    span += eight ? 3 : 2;
  }
  return list;
}
/// The same with each pass's span and where its factors start, in floats. With groups of 16, those
/// of the second pass are no table.
struct Pass {
  std::int32_t radix, span, twiddles;
};
struct PassList {
  int count;
  Pass pass[8];
};
constexpr PassList PassesOf(int L, int vecWidth) {
  const RadixList radices = StageRadices(L, vecWidth);
  const int tabled = vecWidth == 16 ? 2 : 1;
  PassList list{radices.count, {{4, 1, 0}}};
  for (int s = 1; s < list.count; ++s) {
    const Pass& before = list.pass[s - 1];
    list.pass[s] = {radices.radix[s], before.span * before.radix,
                    before.twiddles + (s > tabled ? 2 * before.span * (before.radix - 1) : 0)};
  }
  return list;
}
constexpr int maxFlatOrder = 18;
/// By L.
template <int vecWidth>
inline constexpr std::array<PassList, maxFlatOrder + 1> passesOf = [] {
  std::array<PassList, maxFlatOrder + 1> table{};
  for (int L = 6; L <= maxFlatOrder; ++L)
    table[L] = PassesOf(L, vecWidth);
  return table;
}();

/// The column-wise passes over 2^split pieces.
constexpr RadixList LevelRadices(int split) {
  RadixList list{0, {}};
  for (int t = 0; t < split;) {
    const int left = split - t;
    const bool four = left == 2 || left == 4 || left == 6;
    list.radix[list.count++] = four ? 4 : 8;
    t += four ? 2 : 3;
  }
  return list;
}

/// The row of a large plan of complex order L; all 0 for the smaller ones.
constexpr LargeRow LargeRowOf(const Limits& limits, int L) {
  LargeRow found{0, 0, 0};
  for (const LargeRow& row : limits.large)
    if (L >= row.fromOrder) found = row;
  return found;
}
/// The largest complex order whose passes run on one piece.
constexpr int MaxPieceOrder(const Limits& limits) {
  return limits.reversedMax - 1;
}

/// From this complex order on a vector is copied and then reversed in place: the pages of two
/// vectors do not fit the processor's address cache (TLB).
constexpr int copiedFrom = 19;
/// From this complex order on the bit reversal is tiled: 64 rows of 64 values at a time.
constexpr int tiledFrom = 20;
constexpr int tileBits = 6;
constexpr int tileValues = 1 << 2 * tileBits;
/// From this complex order on the recombination factors are products of a coarse and a fine one.
constexpr int twoLevelFrom = 18;
constexpr int fineCount = 1024;

/// Everything that follows from order and limits. Offsets and sizes in bytes from the start of the
/// spec (or the next 64-byte boundary, for groups of 16), every table at a 32-byte (64-byte)
/// boundary; a table that a plan does not have has size 0.
struct FftLayout {
  int order, L;
  Method method;
  int levels;                 ///< of the large plan
  int levelOrder[maxLevels];  ///< complex order of each
  int pieceOrder;             ///< complex order of the passes of the flat plan
  int bitRevCount;            ///< int32 entries
  int recombPairs;            ///< in each of the two tables
  struct Table {
    std::int32_t offset, bytes;
  } bitRev, twiddles, recombFwd, recombInv, level[maxLevels];
  std::int32_t specSize, initSize, workSize;
};
/// `order` of the real transform; for a complex one of order L pass L + 1 and false.
FftLayout LayoutOf(const Limits& limits, int order, bool real);

// Tables. `vecWidth` values of j form a group: first their cosines, then their negated sines.

/// L up to 19: entry i, 1 <= i < M/4, is the reversal of i in L - 2 bits times 8, which is where
/// block i begins, in floats; 0 and M/4 hold 0.
/// Above: M/4096 block indices, the reversal of L - 12 bits times 64, then for one tile the pairs
/// i < j of the 10-bit reversal times 4, then its fixed points from the far end.
void FillBitRev(int L, std::int32_t* table);
/// For a flat plan in groups of eight: where the first pass leaves the group of each block, given
/// where the block begins (passes.h).
void PairBlocks(int L, std::int32_t* table);
/// Pass after pass from the second, for a span S and a radix r: exp(-2 pi i j p / (S r)), groups
/// over j below S (one group of S where S is less than vecWidth), in each the powers p from 1 to
/// r - 1.
void FillTwiddles(int L, int vecWidth, const RootTable& roots, float* table);
/// Run after run of columns, level after level, as the passes above; the last level has p = 1 only.
void FillLevelTwiddles(int L, const LargeRow& row, int vecWidth, const RootTable& roots,
                       float* table);
/// With t = 2 pi k / N for k from 1 to M/2, group after group of `vecWidth` k, each from its last k
/// down: cos t / 2 and (1 - sin t) / 2 forward, cos t and -sin t inverse; there in column order.
/// From twoLevelFrom on, both hold the groups (cos, -sin) of the first 1,024 k, then the pair of 2
/// pi 1024 c / N for every run c.
void FillRecombination(int L, int vecWidth, const RootTable& roots, float* forward, float* inverse);
/// Values in a group of the recombination: 16 values in all hold no two groups of 16.
constexpr int RecombinationWidth(int L, int vecWidth) {
  return L == 4 && vecWidth == 16 ? 8 : vecWidth;
}
/// The index, inside its group, of the value at place `lane` in column order: the order in which
/// interleaved values stand when they have been taken apart inside each 128-bit lane alone. With
/// groups of 16 they are in their own order.
constexpr int ColumnOf(int lane, int vecWidth) {
  return vecWidth != 8 ? lane : (lane & 1) | (lane & 2) << 1 | (lane & 4) >> 1;
}

constexpr bool IsFlag(int flag) {
  return flag == 1 || flag == 2 || flag == 4 || flag == 8;
}

// The planning entries of a build with these limits. Statuses and arguments in ipps.h and build.h.

IppStatus GetFftSizes(const Limits& limits, int order, int flag, int* specSize, int* initSize,
                      int* workSize);
IppStatus PlanRealFft(const Limits& limits, IppsFFTSpec_R_32f** made, int order, int flag,
                      int hint);
IppStatus PlanComplexFft(const Limits& limits, IppsFFTSpec_C_32fc** made, int order, int flag,
                         int hint);
IppStatus PlanRealFftIn(Ipp8u* specMem, Ipp8u* initMem, const Limits& limits,
                        IppsFFTSpec_R_32f** made, int order, int flag, int hint);
/// `id` is that of a live spec of its kind.
IppStatus FreeFft(FftSpec* spec, std::int32_t id);

}  // namespace Orvik::Tesmo::Kernels

struct IppsFFTSpec_R_32f : Orvik::Tesmo::Kernels::FftSpec {};
struct IppsFFTSpec_C_32fc : Orvik::Tesmo::Kernels::FftSpec {};
