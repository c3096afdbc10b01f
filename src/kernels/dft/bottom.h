// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// The first kernels of a complex plan: short transforms of strided input, each into a contiguous
// block. One register holds the same value of several transforms, whose inputs are neighbours in
// memory, so that loads are whole registers. The results are transposed as they are stored.

#include "kernels/dft/any_radix.h"

#include <cstddef>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// All bottom transforms of one breadth-first run. Offsets count complex values (samples in real
/// plans).
struct BottomRun {
  int radix;
  int total;  ///< transforms: they start at input offsets 0 to total - 1 times `stride`
  std::ptrdiff_t stride;
  const std::int32_t* place;  ///< where the block of each input offset starts in the target
  const float* roots;         ///< of the radix, for generic kernels
};

/// Kernels load the inputs of `count` transforms, neighbours in memory, as one register. Where a
/// run has fewer transforms, or their inputs are not neighbours, each group is first copied into an
/// array in which they are.
template <int count>
void RunBottom(void (*kernel)(const float*, float*, const BottomRun&), const float* src, float* dst,
               const BottomRun& run) {
  if (run.stride == 1 && run.total >= count) return kernel(src, dst, run);
  alignas(32) float gathered[2 * genericLimit * count];
  std::int32_t place[count];
  for (int first = 0; first < run.total; first += count) {
    for (int l = 0; l < count; ++l) {
      const int j = Smaller(first + l, run.total - 1);
      place[l] = run.place[j];
      for (int k = 0; k < run.radix; ++k) {
        const float* value =
            src + 2 * run.stride * (j + static_cast<std::ptrdiff_t>(run.total) * k);
        gathered[2 * (count * k + l)] = value[0];
        gathered[2 * (count * k + l) + 1] = value[1];
      }
    }
    kernel(gathered, dst, {run.radix, count, 1, place, run.roots});
  }
}

/// body(rows, blocks) for groups of `count` transforms: their values k start at rows + 2 total k.
/// The last group starts early, over transforms already done.
template <int count, class Body>
KERNELS_INLINE void ForBottomGroups(const float* src, float* dst, const BottomRun& run,
                                    Body&& body) {
  const std::int32_t* place = run.place;
  for (int left = run.total; left > 0; left -= count) {
    const int step = Smaller(left - count, 0);
    float* block[count];
    Unroll<count>([&](auto l) KERNELS_INLINE_LAMBDA { block[l] = dst + 2L * place[step + l]; });
    body(src + 2 * step, block);
    src += 2 * count;
    place += count;
  }
}

/// m = 4 B values into groups: radix 4 on interleaved rows, whose transposition takes the parts
/// apart and puts four outputs side by side, then radix B across.
template <class V, int B, Direction dir>
void GroupedBottom(const float* src, float* dst, const BottomRun& run) {
  constexpr int count = V::width / 2, m = 4 * B;
  const std::ptrdiff_t row = 2L * run.total;
  ForBottomGroups<count>(src, dst, run,
                         [&](const float* rows, float* const* blocks) KERNELS_INLINE_LAMBDA {
                           // z[0] has transform 0, with two lanes also 2; z[1] has 1 and 3
                           Complex<V> z[2][B];
                           Unroll<B>([&](auto n2) KERNELS_INLINE_LAMBDA {
                             Pairs<V> x[4];
                             Unroll<4>([&](auto n1) KERNELS_INLINE_LAMBDA {
                               x[n1] = Pairs<V>::LoadU(rows + (B * n1 + n2) * row);
                             });
                             Butterfly<4, dir>(x);
                             TransposeLanes(x[0].v, x[1].v, x[2].v, x[3].v);
                             z[0][n2] = {x[0].v, x[1].v};
                             z[1][n2] = {x[2].v, x[3].v};
                             if constexpr (n2 > 0) {
                               const float* w = twiddlesOf<4, m>.data[n2 - 1];
                               const Complex<V> twiddle = {V::LoadQuad(w), V::LoadQuad(w + 4)};
                               z[0][n2] = TimesTwiddle<dir>(z[0][n2], twiddle);
                               z[1][n2] = TimesTwiddle<dir>(z[1][n2], twiddle);
                             }
                           });
                           Unroll<2>([&](auto half) KERNELS_INLINE_LAMBDA {
                             Butterfly<B, dir>(z[half]);
                             if constexpr (V::lanes == 1) {
                               Unroll<B>([&](auto k2) KERNELS_INLINE_LAMBDA {
                                 z[half][k2].StoreU(blocks[half] + 8 * k2);
                               });
                             } else {
                               float* const block = blocks[half];
                               const std::ptrdiff_t other = blocks[half + 2] - block;
                               // n is a multiple of 8 here, so its bottom radix is 8 or 16
                               Unroll<B / 2>([&](auto i) KERNELS_INLINE_LAMBDA {
                                 const Complex<V> a = z[half][2 * i], b = z[half][2 * i + 1];
                                 UnpackLoPairs(a.re, b.re).StoreLanes(block + 16 * i, other);
                                 UnpackHiPairs(a.re, b.re).StoreLanes(block + 16 * i + 4, other);
                                 UnpackLoPairs(a.im, b.im).StoreLanes(block + 16 * i + 8, other);
                                 UnpackHiPairs(a.im, b.im).StoreLanes(block + 16 * i + 12, other);
                               });
                             }
                           });
                         });
}

/// With four lanes, m = 16 values are one register wide: radix 16 on interleaved rows, whose
/// transposition leaves one group.
template <class V, Direction dir>
void GroupBottom(const float* src, float* dst, const BottomRun& run) {
  ForBottomGroups<V::width / 2>(
      src, dst, run, [&](const float* rows, float* const* blocks) KERNELS_INLINE_LAMBDA {
        Complex<V> group[V::width / 2];
        TransformRows<dir>(rows, 2L * run.total, group);
        Unroll<V::width / 2>([&](auto i) KERNELS_INLINE_LAMBDA { group[i].StoreU(blocks[i]); });
      });
}

/// Stores V::width / 2 values of each of as many transforms, interleaved.
template <class V>
KERNELS_INLINE void StoreChunk(const Pairs<V>* x, float* const* lane) {
  const V lo = UnpackLoPairs(x[0].v, x[1].v), hi = UnpackHiPairs(x[0].v, x[1].v);
  if constexpr (V::lanes == 1) {
    lo.StoreU(lane[0]);
    hi.StoreU(lane[1]);
  } else {
    const V lo2 = UnpackLoPairs(x[2].v, x[3].v), hi2 = UnpackHiPairs(x[2].v, x[3].v);
    LowLanes(lo, lo2).StoreU(lane[0]);
    LowLanes(hi, hi2).StoreU(lane[1]);
    HighLanes(lo, lo2).StoreU(lane[2]);
    HighLanes(hi, hi2).StoreU(lane[3]);
  }
}

/// Transforms shorter than a chunk: pairs of values.
template <class V>
KERNELS_INLINE void StorePairs(const Pairs<V>* x, float* const* lane) {
  const V lo = UnpackLoPairs(x[0].v, x[1].v), hi = UnpackHiPairs(x[0].v, x[1].v);
  lo.StoreLanes(lane[0], lane[2] - lane[0]);
  hi.StoreLanes(lane[1], lane[3] - lane[1]);
}

/// The last chunk starts so that it ends with the transform, over values already written.
template <class C, int R>
KERNELS_INLINE void StoreBlocks(const C* x, float* const* lane) {
  constexpr int count = countOf<C>;
  constexpr int chunk = R < count ? 2 : count;
  Unroll<(R + chunk - 1) / chunk>([&](auto i) KERNELS_INLINE_LAMBDA {
    constexpr int k = Smaller<int>(i * chunk, R - chunk);
    float* to[count];
    Unroll<count>([&](auto l) KERNELS_INLINE_LAMBDA { to[l] = lane[l] + 2 * k; });
    if constexpr (chunk == count)
      StoreChunk(x + k, to);
    else
      StorePairs(x + k, to);
  });
}
template <class C>
void StoreBlocks(const C* x, float* const* lane, int radix) {
  constexpr int count = countOf<C>;
  for (int i = 0; i < radix; i += count) {
    const int k = Smaller(i, radix - count);
    float* to[count];
    for (int l = 0; l < count; ++l)
      to[l] = lane[l] + 2 * k;
    StoreChunk(x + k, to);
  }
}

/// Interleaved transforms. R = 0: any odd radix.
template <class V, int R, Direction dir>
void PairsBottom(const float* src, float* dst, const BottomRun& run) {
  using C = Pairs<V>;
  const std::ptrdiff_t row = 2L * run.total;
  ForBottomGroups<countOf<C>>(
      src, dst, run, [&](const float* rows, float* const* blocks) KERNELS_INLINE_LAMBDA {
        C x[R > 0 ? R : genericLimit];
        if constexpr (R > 0) {
          Unroll<R>([&](auto k) KERNELS_INLINE_LAMBDA { x[k] = C::LoadU(rows + k * row); });
          Butterfly<R, dir>(x);
          StoreBlocks<C, R>(x, blocks);
        } else {
          for (int k = 0; k < run.radix; ++k)
            x[k] = C::LoadU(rows + k * row);
          GenericButterfly<dir>(x, run.radix, run.roots);
          StoreBlocks(x, blocks, run.radix);
        }
      });
}

/// The bottom of a plan whose values are grouped (IsGrouped).
template <class V, Direction dir>
void RunGroupedBottom(const float* src, float* dst, const BottomRun& run) {
  if constexpr (V::lanes == 4) {
    RunBottom<V::width / 2>(GroupBottom<V, dir>, src, dst, run);
  } else {
    const auto kernel = run.radix == 16  ? GroupedBottom<V, 4, dir>
                        : run.radix == 8 ? GroupedBottom<V, 2, dir>
                                         : GroupedBottom<V, 1, dir>;
    RunBottom<V::width / 2>(kernel, src, dst, run);
  }
}

template <class V, Direction dir>
void RunPairsBottom(const float* src, float* dst, const BottomRun& run) {
  const auto kernel = [&] {
    switch (run.radix) {
    case 2:
      return PairsBottom<V, 2, dir>;
    case 3:
      return PairsBottom<V, 3, dir>;
    case 4:
      return PairsBottom<V, 4, dir>;
    case 5:
      return PairsBottom<V, 5, dir>;
    case 6:
      return PairsBottom<V, 6, dir>;
    case 7:
      return PairsBottom<V, 7, dir>;
    case 8:  // with groups of at most eight values, a plan with this radix is grouped
      if constexpr (Vec::width == 16)
        return PairsBottom<V, 8, dir>;
      else
        return PairsBottom<V, 0, dir>;
    case 11:
      return PairsBottom<V, 11, dir>;
    case 13:
      return PairsBottom<V, 13, dir>;
    default:
      return PairsBottom<V, 0, dir>;
    }
  }();
  RunBottom<V::width / 2>(kernel, src, dst, run);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
