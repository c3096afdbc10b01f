#include "kernels/fft/plan.h"

#include "kernels/cpu.h"
#include "kernels/memory.h"

#include <algorithm>

namespace Orvik::Tesmo::Kernels {
namespace {

std::int32_t Reverse(std::int32_t value, int bits) {
  std::int32_t r = 0;
  for (int b = 0; b < bits; ++b, value >>= 1)
    r = r << 1 | (value & 1);
  return r;
}

/// A factor at its place in a group of `group` real parts and as many imaginary parts.
void SetRoot(Ipp32fc root, float* at, std::ptrdiff_t group) {
  at[0] = root.re;
  at[group] = root.im;
}

/// The factors of one pass, from `out` on; returns the end. Value `at` of the run stands for
/// j = at / width * step + first + at % width.
float* FillPass(std::int64_t span, int radix, int powers, std::int64_t count, std::int64_t width,
                std::int64_t step, std::int64_t first, int vecWidth, const RootTable& roots,
                float* out) {
  const int group = static_cast<int>(std::min<std::int64_t>(vecWidth, count));
  for (std::int64_t local = 0; local < count; local += group)
    for (int p = 1; p <= powers; ++p, out += 2 * group)
      for (int lane = 0; lane < group; ++lane) {
        const std::int64_t at = local + lane, j = at / width * step + first + at % width;
        SetRoot(roots.At(j * p, span * radix), out + lane, group);
      }
  return out;
}

}  // namespace

FftLayout LayoutOf(const Limits& limits, int order, bool real) {
  FftLayout l{};
  l.order = order;
  l.L = order - 1;
  l.method = MethodOf(limits, order);
  const std::int32_t alignment = AlignmentOf(limits.vecWidth);
  l.specSize = AlignUp(static_cast<std::int32_t>(sizeof(FftSpec)), alignment);
  if (!real && order <= limits.directMax) l.method = Method::DirectComplex;
  if (l.method == Method::DirectReal) return l;
  // A spec is aligned to less.
  const std::int32_t slack = alignment - static_cast<std::int32_t>(tableAlignment);
  l.specSize += slack;

  const std::int64_t M = std::int64_t{1} << l.L, N = 2 * M;
  constexpr std::int64_t pair = 2 * sizeof(float);
  const auto place = [&](FftLayout::Table& table, std::int64_t bytes) {
    table = {l.specSize - slack, static_cast<std::int32_t>(bytes)};
    l.specSize += AlignUp(table.bytes, alignment);
  };
  l.initSize = order > 10 ? static_cast<std::int32_t>((N + 35) & ~31) + 32 : 0;
  if (l.method != Method::DirectComplex) {
    l.bitRevCount = static_cast<int>(l.L < tiledFrom ? M / 4 + 1 : M / tileValues + tileValues / 4);
    place(l.bitRev, l.bitRevCount * std::int64_t{4});
    l.pieceOrder = l.L;
    std::int64_t scratch = 8 * M + 31;
    if (l.method == Method::Large) {
      scratch = l.L >= tiledFrom ? 2 * pair * tileValues : 0;
      while (l.pieceOrder > MaxPieceOrder(limits)) {
        const LargeRow row = LargeRowOf(limits, l.pieceOrder);
        place(l.level[l.levels], pair << (l.pieceOrder - 1));
        l.levelOrder[l.levels++] = l.pieceOrder;
        scratch = std::max(scratch, pair << row.blockBits);
        l.pieceOrder -= row.split;
      }
      scratch = std::max(scratch, pair << l.pieceOrder);
    }
    l.workSize = static_cast<std::int32_t>(scratch & ~std::int64_t{31}) + 32 + slack;
    place(l.twiddles, pair << l.pieceOrder);
  }
  if (real) {
    l.recombPairs = static_cast<int>(l.L < twoLevelFrom ? N / 4 : (N >> 12) + fineCount);
    place(l.recombFwd, l.recombPairs * pair);
    place(l.recombInv, l.recombPairs * pair);
  }
  return l;
}

void FillBitRev(int L, std::int32_t* table) {
  const std::int32_t M = 1 << L;
  if (L < tiledFrom) {
    // The reversed counter: its carry runs from the top bit down.
    table[0] = table[M / 4] = 0;
    for (std::int32_t i = 1, r = 0; i < M / 4; ++i) {
      std::int32_t bit = M / 8;
      for (; (r & bit) != 0; bit >>= 1)
        r ^= bit;
      r |= bit;
      table[i] = 8 * r;
    }
    return;
  }
  const int middle = L - 2 * tileBits;
  for (std::int32_t b = 0; b < 1 << middle; ++b)
    *table++ = Reverse(b, middle) << tileBits;
  constexpr int bits = 2 * tileBits - 2;
  std::int32_t *pairs = table, *fixed = table + (1 << bits);
  for (std::int32_t i = 0; i < 1 << bits; ++i) {
    const std::int32_t j = Reverse(i, bits);
    if (i < j) {
      *pairs++ = 4 * i;
      *pairs++ = 4 * j;
    } else if (i == j) {
      *--fixed = 4 * i;
    }
  }
}

void PairBlocks(int L, std::int32_t* table) {
  const std::int32_t M = 1 << L;
  for (std::int32_t i = 0; i < M / 4; ++i)
    table[i] = (table[i] & ~8) + ((table[i] & 8) != 0 ? M / 2 : 0);
}

void FillTwiddles(int L, int vecWidth, const RootTable& roots, float* table) {
  const PassList list = PassesOf(L, vecWidth);
  for (int s = vecWidth == 16 ? 2 : 1; s < list.count; ++s) {
    const auto [radix, span, start] = list.pass[s];
    FillPass(span, radix, radix - 1, span, span, 0, 0, vecWidth, roots, table + start);
  }
}

void FillLevelTwiddles(int L, const LargeRow& row, int vecWidth, const RootTable& roots,
                       float* table) {
  const RadixList list = LevelRadices(row.split);
  const std::int64_t piece = std::int64_t{1} << (L - row.split);
  const std::int64_t columns = std::int64_t{1} << (row.blockBits - row.split);
  for (std::int64_t first = 0; first < piece; first += columns) {
    std::int64_t span = piece, count = columns;
    for (int s = 0; s < list.count; ++s) {
      const int r = list.radix[s], powers = s + 1 == list.count ? 1 : r - 1;
      table = FillPass(span, r, powers, count, columns, piece, first, vecWidth, roots, table);
      span *= r;
      count *= r;
    }
  }
}

void FillRecombination(int L, int vecWidth, const RootTable& roots, float* forward,
                       float* inverse) {
  const std::int64_t N = std::int64_t{2} << L;
  const bool twoLevel = L >= twoLevelFrom;
  const auto halve = [&](float* pair, int imaginary) {
    if (!twoLevel) {
      pair[0] *= 0.5f;
      pair[imaginary] = pair[imaginary] * 0.5f + 0.5f;
    }
  };
  const std::int64_t fine = twoLevel ? fineCount : N / 4;
  for (std::int64_t last = vecWidth; last <= fine; last += vecWidth) {
    for (int lane = 0; lane < vecWidth; ++lane) {
      float *f = forward + lane, *i = inverse + lane;
      SetRoot(roots.At(last - lane, N), f, vecWidth);
      halve(f, vecWidth);
      SetRoot(roots.At(last - ColumnOf(lane, vecWidth), N), i, vecWidth);
    }
    forward += 2 * vecWidth;
    inverse += 2 * vecWidth;
  }
  if (twoLevel)
    for (std::int64_t k = 0; k < N / 4; k += fineCount, forward += 2, inverse += 2) {
      SetRoot(roots.At(k, N), forward, 1);
      SetRoot(roots.At(k, N), inverse, 1);
    }
}

namespace {

/// Header and tables into `spec`, a 32-byte aligned block of layout.specSize bytes; `initMem` has
/// layout.initSize bytes. `flag` is one of the four.
void FillSpec(const FftLayout& layout, const Limits& limits, bool real, int flag, int hint,
              FftSpec* spec, Ipp8u* initMem) {
  *spec = {};
  const int size = layout.order - (real ? 0 : 1);
  spec->order = size;
  spec->hint = hint;
  spec->workSize = layout.workSize;
  spec->fwdScaled = flag == IPP_FFT_DIV_FWD_BY_N || flag == IPP_FFT_DIV_BY_SQRTN;
  spec->invScaled = flag == IPP_FFT_DIV_INV_BY_N || flag == IPP_FFT_DIV_BY_SQRTN;
  const auto count = static_cast<float>(1 << size);
  spec->scale = 1.0f;
  if (flag == IPP_FFT_DIV_BY_SQRTN) {
    const float y = EstimateReciprocalRoot(count);
    spec->scale = y * (count * y * y - 3.0f) * -0.5f;
  } else if (flag != IPP_FFT_NODIV_BY_ANY) {
    spec->scale = 1.0f / count;
  }
  spec->id = real ? FftSpec::liveReal : FftSpec::liveComplex;
  if (layout.bitRev.bytes == 0 && layout.recombFwd.bytes == 0) return;

  Ipp8u* memory = AlignUp(reinterpret_cast<Ipp8u*>(spec), AlignmentOf(limits.vecWidth));
  const auto table = [&](const FftLayout::Table& t) {
    return reinterpret_cast<float*>(memory + t.offset);
  };
  const RootTable roots = layout.order > 10 ? RootTable(reinterpret_cast<float*>(AlignUp(initMem)),
                                                        std::int64_t{1} << layout.order)
                                            : RootTable();
  if (layout.bitRev.bytes != 0) {
    auto* bitRev = reinterpret_cast<std::int32_t*>(memory + layout.bitRev.offset);
    FillBitRev(layout.L, bitRev);
    if (layout.method == Method::Flat && limits.vecWidth == 8) PairBlocks(layout.L, bitRev);
    spec->bitRev = bitRev;
    FillTwiddles(layout.pieceOrder, limits.vecWidth, roots, table(layout.twiddles));
    spec->twiddles = table(layout.twiddles);
  }
  for (int i = 0; i < layout.levels; ++i) {
    const int L = layout.levelOrder[i];
    FillLevelTwiddles(L, LargeRowOf(limits, L), limits.vecWidth, roots, table(layout.level[i]));
    spec->levelTwiddles[i] = table(layout.level[i]);
  }
  if (layout.recombFwd.bytes != 0) {
    const int width = RecombinationWidth(layout.L, limits.vecWidth);
    FillRecombination(layout.L, width, roots, table(layout.recombFwd), table(layout.recombInv));
    spec->recombFwd = table(layout.recombFwd);
    spec->recombInv = table(layout.recombInv);
  }
}

/// A spec of either kind in memory of its own.
template <class Spec>
IppStatus Plan(const Limits& limits, Spec** made, const FftLayout& layout, bool real, int flag,
               int hint) {
  if (!IsFlag(flag)) return ippStsFftFlagErr;
  Ipp8u* memory = ippsMalloc(layout.specSize);
  Ipp8u* initMem = memory && layout.initSize > 0 ? ippsMalloc(layout.initSize) : nullptr;
  if (!memory || (layout.initSize > 0 && !initMem)) {
    ippsFree(memory);
    return ippStsMemAllocErr;
  }
  auto* spec = reinterpret_cast<Spec*>(memory);
  FillSpec(layout, limits, real, flag, hint, spec, initMem);
  ippsFree(initMem);
  spec->owned = 1;
  *made = spec;
  return ippStsNoErr;
}

}  // namespace

IppStatus GetFftSizes(const Limits& limits, int order, int flag, int* specSize, int* initSize,
                      int* workSize) {
  if (order < 0 || order > maxOrder + 1) return ippStsFftOrderErr;
  if (!specSize || !initSize || !workSize) return ippStsNullPtrErr;
  if (!IsFlag(flag)) return ippStsFftFlagErr;
  if (order > maxOrder) return ippStsFftOrderErr;
  const FftLayout layout = LayoutOf(limits, order, true);
  // Room to align a block of the caller's.
  *specSize = layout.specSize + static_cast<int>(tableAlignment);
  *initSize = layout.initSize;
  *workSize = layout.workSize;
  return ippStsNoErr;
}

IppStatus PlanRealFft(const Limits& limits, IppsFFTSpec_R_32f** made, int order, int flag,
                      int hint) {
  int specSize = 0, initSize = 0, workSize = 0;
  if (!made) return ippStsNullPtrErr;
  const IppStatus status = GetFftSizes(limits, order, flag, &specSize, &initSize, &workSize);
  if (status != ippStsNoErr) return status;
  return Plan(limits, made, LayoutOf(limits, order, true), true, flag, hint);
}

IppStatus PlanComplexFft(const Limits& limits, IppsFFTSpec_C_32fc** made, int order, int flag,
                         int hint) {
  if (!made) return ippStsNullPtrErr;
  if (order < 0 || order >= maxOrder) return ippStsFftOrderErr;
  return Plan(limits, made, LayoutOf(limits, order + 1, false), false, flag, hint);
}

IppStatus PlanRealFftIn(Ipp8u* specMem, Ipp8u* initMem, const Limits& limits,
                        IppsFFTSpec_R_32f** made, int order, int flag, int hint) {
  if (!made) return ippStsNullPtrErr;
  if (order < 0 || order > maxOrder) return ippStsFftOrderErr;
  if (!specMem) return ippStsNullPtrErr;
  auto* spec = reinterpret_cast<IppsFFTSpec_R_32f*>(AlignUp(specMem));
  spec->id = 0;
  if (!IsFlag(flag)) return ippStsFftFlagErr;
  const FftLayout layout = LayoutOf(limits, order, true);
  if (layout.initSize > 0 && !initMem) return ippStsNullPtrErr;
  FillSpec(layout, limits, true, flag, hint, spec, initMem);
  *made = spec;
  return ippStsNoErr;
}

IppStatus FreeFft(FftSpec* spec, std::int32_t id) {
  if (!spec) return ippStsNullPtrErr;
  if (spec->id != id) return ippStsContextMatchErr;
  spec->id = 0;
  if (spec->owned) ippsFree(spec);
  return ippStsNoErr;
}

}  // namespace Orvik::Tesmo::Kernels
