// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
//
// The complex transform of M = 2^L interleaved values: walks a plan over the passes.
#pragma once

#include "kernels/fft/direct.h"
#include "kernels/fft/passes.h"
#include "kernels/fft/plan.h"
#include "kernels/fft/recombine.h"
#include "kernels/fft/reversal.h"
#include "kernels/memory.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

template <Direction dir, Output output>
inline void RunDirect(const float* src, float* dst, int L, float scale) {
  switch (L) {
  case 0:
    return SmallComplex<dir, 1>(src, dst);
  case 1:
    return SmallComplex<dir, 2>(src, dst);
  case 2:
    return SmallComplex<dir, 4>(src, dst);
  case 3:
    return SmallComplex<dir, 8>(src, dst);
  case 4:
    return DirectComplex<dir, output, Vec4, Vec::UpTo8::width, 16>(src, dst, scale);
  case 5:
    return DirectComplex<dir, output, Vec::UpTo8, Vec::width, 32>(src, dst, scale);
  case 6:
    if constexpr (Vec::width >= 8)
      return DirectComplex<dir, output, Vec::UpTo8, Vec::width, 64>(src, dst, scale);
    return;
  case 7:
    if constexpr (Vec::width == 16)
      return DirectComplex<dir, output, Vec, Vec::width, 128>(src, dst, scale);
    return;
  default:
    if constexpr (Vec::width == 16)
      return DirectComplex<dir, output, Vec, Vec::width, 256>(src, dst, scale);
  }
}

/// One pass on `count` values.
template <Direction dir, Output output>
inline void RunPass(const Pass& pass, const float* data, float* out, const float* twiddles,
                    std::ptrdiff_t count, float scale) {
  if (pass.radix == 8)
    LaterPass<dir, Vec, 8, output>(data, out, twiddles + pass.twiddles, pass.span, count, scale);
  else
    LaterPass<dir, Vec, 4, output>(data, out, twiddles + pass.twiddles, pass.span, count, scale);
}

/// Values whose passes stay in the first-level cache, with their factors.
constexpr std::ptrdiff_t cachedValues = 2048;

/// Parts of a vector that the first pass leaves mixed in its registers, for the second to separate.
constexpr int mixedParts = Vec::lanes == 2 ? 2 : 1;

/// The passes from the second to `last` on `count` values, with two lanes also on their partners
/// (see passes.h). Where all values stay in the cache, pass after pass; otherwise block after
/// block, each with all its passes.
template <Direction dir, Input input>
void RunPasses(float* data, std::ptrdiff_t partner, std::ptrdiff_t count, const PassList& plan,
               int last, const float* twiddles) {
  const Pass& pass = plan.pass[last];
  int first = last;
  if (last > 1 && count * mixedParts > cachedValues) {
    for (float* block = data; block < data + 2 * count; block += 2 * pass.span)
      RunPasses<dir, input>(block, partner, pass.span, plan, last - 1, twiddles);
  } else {
    first = 2;
    if constexpr (Vec::lanes == 4) {
      if constexpr (input == Input::Fours) SecondPassOfFours<dir, Vec>(data, count);
    } else if (plan.pass[1].radix == 8)
      SecondPass<dir, Vec, 8, input>(data, partner, twiddles, count);
    else
      SecondPass<dir, Vec, 4, input>(data, partner, twiddles, count);
  }
  for (int part = 0; part < mixedParts; ++part, data += partner)
    for (int s = first; s <= last; ++s)
      RunPass<dir, Output::Stage>(plan.pass[s], data, data, twiddles, count, 1.0f);
}

/// The passes behind the first, in `stage`, the last one to dst.
template <Direction dir, Input input, Output output>
void LaterPasses(float* stage, float* dst, const float* twiddles, int L, float scale) {
  const PassList& plan = passesOf<Vec::width>[L];
  const std::ptrdiff_t M = std::ptrdiff_t{1} << L;
  constexpr int halves = mixedParts;
  // In the cache, each pass behind the second runs over everything at once.
  const bool isCached = M <= cachedValues;
  const int last = plan.count - 1, inBlocks = isCached ? 1 : last - 1;
  for (int h = 0; h < halves; ++h)
    RunPasses<dir, input>(stage + h * M, M / 2, M / (halves * halves), plan, inBlocks, twiddles);
  for (int s = inBlocks + 1; s < last; ++s)
    RunPass<dir, Output::Stage>(plan.pass[s], stage, stage, twiddles, M, 1.0f);
  RunPass<dir, output>(plan.pass[last], stage, dst, twiddles, M, scale);
}

/// The column-wise levels over the 2^split pieces of `data`, a run of columns at a time through
/// `work`.
template <Direction dir, Output output>
void ColumnLevels(float* data, const float* twiddles, int L, const LargeRow& plan, float* work,
                  float scale) {
  const RadixList list = LevelRadices(plan.split);
  const std::ptrdiff_t rows = std::ptrdiff_t{1} << plan.split,
                       piece = std::ptrdiff_t{2} << (L - plan.split);
  const std::ptrdiff_t values = std::ptrdiff_t{1} << plan.blockBits, columns = values >> plan.split;
  for (float* run = data; run < data + piece; run += 2 * columns) {
    std::ptrdiff_t span = columns;
    for (int s = 0; s + 1 < list.count; ++s) {
      const bool eight = list.radix[s] == 8;
      if (s == 0 && eight)
        GatheringPass<dir, Vec, 8>(run, piece, work, twiddles, columns, rows);
      else if (s == 0)
        GatheringPass<dir, Vec, 4>(run, piece, work, twiddles, columns, rows);
      else if (eight)
        LaterPass<dir, Vec, 8, Output::Stage>(work, work, twiddles, span, values, 1.0f);
      else
        LaterPass<dir, Vec, 4, Output::Stage>(work, work, twiddles, span, values, 1.0f);
      twiddles += 2 * span * (list.radix[s] - 1);
      span *= list.radix[s];
    }
    ScatteringPass<dir, Vec, output>(work, run, piece, twiddles, columns, rows, scale);
    twiddles += 2 * span;
  }
}

/// The passes of a reversed or large plan, in place on what Reverse left. `work` is 32-byte
/// aligned.
template <Direction dir, Output output>
void RunReversed(float* data, const FftSpec& spec, int L, const float* const* levelTwiddles,
                 float* work, float scale) {
  const std::ptrdiff_t M = std::ptrdiff_t{1} << L;
  if (L <= MaxPieceOrder(limits)) {
    constexpr Input input = Vec::lanes == 1 ? Input::Stage : Input::Fours;
    float* stage = IsAligned(data, sizeof(Vec)) ? data : work;
    if (stage == work) std::memcpy(work, data, sizeof(float) * 2 * static_cast<std::size_t>(M));
    return LaterPasses<dir, input, output>(stage, data, spec.twiddles, L, scale);
  }
  const LargeRow plan = LargeRowOf(limits, L);
  const int below = L - plan.split;
  for (std::ptrdiff_t at = 0; at < M; at += std::ptrdiff_t{1} << below)
    RunReversed<dir, Output::Stage>(data + 2 * at, spec, below, levelTwiddles + 1, work, 1.0f);
  ColumnLevels<dir, output>(data, *levelTwiddles, L, plan, work, scale);
}

/// src may be dst. `work` is 32-byte aligned, of the plan's size; null where that is 0. Only
/// Output::Scaled reads `scale`.
template <Direction dir, Output output>
void ComplexTransform(const float* src, float* dst, const FftSpec& spec, int L, float* work,
                      float scale) {
  const int order = L + 1;
  if (order <= limits.directMax) return RunDirect<dir, output>(src, dst, L, scale);
  if (order <= limits.flatMax) {
    float* stage = dst != src && IsAligned(dst, sizeof(Vec)) ? dst : work;
    FirstPass<dir, Vec>(src, stage, spec.bitRev, std::ptrdiff_t{1} << L);
    return LaterPasses<dir, Input::Stage, output>(stage, dst, spec.twiddles, L, scale);
  }
  Reverse<dir>(src, dst, spec.bitRev, L, work);
  RunReversed<dir, output>(dst, spec, L, spec.levelTwiddles, work, scale);
}

// The real transforms from order 5 on. src may be dst.

/// N samples to packed order.
inline void ForwardFft(const float* src, float* dst, const FftSpec& spec, float* work) {
  const int L = spec.order - 1;
  ComplexTransform<Direction::Forward, Output::Stage>(src, dst, spec, L, work, 1.0f);
  const std::ptrdiff_t M = std::ptrdiff_t{1} << L;
  const float scale = spec.fwdScaled ? spec.scale : 1.0f;
  if (RecombinationWidth(L, Vec::width) < Vec::width)
    return RecombineForward<Vec::UpTo8>(dst, spec.recombFwd, M, scale);
  RecombineForward<Vec>(dst, spec.recombFwd, M, scale);
}

/// CCS to N samples. The scale multiplies the results, in the stores of the last pass.
template <Output output>
void InverseFft(const float* src, float* dst, const FftSpec& spec, float* work) {
  const int L = spec.order - 1;
  const std::ptrdiff_t M = std::ptrdiff_t{1} << L;
  if (Vec::lanes < 4 && spec.order > limits.directMax && spec.order <= limits.flatMax) {
    RecombineInverse<Output::Stage, Vec>(src, dst, spec.recombInv, M);
    FirstPassColumns<Direction::Inverse, Vec>(dst, work, spec.bitRev, M);
    return LaterPasses<Direction::Inverse, Input::Stage, output>(work, dst, spec.twiddles, L,
                                                                 spec.scale);
  }
  if (RecombinationWidth(L, Vec::width) < Vec::width)
    RecombineInverse<Output::Interleaved, Vec::UpTo8>(src, dst, spec.recombInv, M);
  else
    RecombineInverse<Output::Interleaved, Vec>(src, dst, spec.recombInv, M);
  ComplexTransform<Direction::Inverse, output>(dst, dst, spec, L, work, spec.scale);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
