// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// The bottom of a complex plan: short transforms of strided input into contiguous blocks. The lanes
// of a register hold transforms at neighbouring input offsets, so that rows load whole; the results
// are turned around lane by lane on their way out.

#include "kernels/dft/butterfly.h"

#include <cstddef>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// All bottom transforms of one breadth-first run. Offsets count complex values.
struct BottomRun {
  int radix;
  int total;  ///< transforms: they start at input offsets 0 to total - 1 times `stride`
  std::ptrdiff_t stride;
  const std::int32_t* place;  ///< place[j]: where the block of input offset j goes, in blocks
  const float* roots;         ///< of the radix, for generic kernels
};

template <class V>
KERNELS_INLINE V PairsAt(const float* const* p) {
  const auto half = [](const float* a, const float* b) KERNELS_INLINE_LAMBDA {
    const __m128d lo = _mm_load_sd(reinterpret_cast<const double*>(a));
    return _mm_castpd_ps(_mm_loadh_pd(lo, reinterpret_cast<const double*>(b)));
  };
  if constexpr (V::lanes == 1)
    return {half(p[0], p[1])};
  else
    return V::Join(half(p[0], p[1]), half(p[2], p[3]));
}

/// One row of input: the values at the same offset behind each lane's start.
template <class C>
KERNELS_INLINE C GatherRow(const float* const* lane, std::ptrdiff_t offset) {
  using V = typename LaneTraits<C>::Vector;
  const float* p[countOf<C>];
  for (int l = 0; l < countOf<C>; ++l)
    p[l] = lane[l] + 2 * offset;
  if constexpr (countOf<C> == V::width)
    return Group(PairsAt<V>(p), PairsAt<V>(p + V::width / 2));
  else
    return Group(PairsAt<V>(p));
}

/// Writes values k to k + 3 (or k + 7) of each lane's transform, as one group of its block.
template <class V>
KERNELS_INLINE void StoreChunk(const Complex<V>* x, float* const* lane) {
  if constexpr (V::lanes == 1) {
    V re[4], im[4];
    Unroll<4>([&](auto i) KERNELS_INLINE_LAMBDA { re[i] = x[i].re, im[i] = x[i].im; });
    TransposeLanes(re[0], re[1], re[2], re[3]);
    TransposeLanes(im[0], im[1], im[2], im[3]);
    Unroll<4>([&](auto l) KERNELS_INLINE_LAMBDA { Complex<V>{re[l], im[l]}.StoreU(lane[l]); });
  } else {
    constexpr auto order = GroupOrder<V>();
    const auto turn = [&](auto part, float* const* to) KERNELS_INLINE_LAMBDA {
      V a[8];
      // rows in the order of a group's low halves and high halves
      Unroll<8>([&](auto i) KERNELS_INLINE_LAMBDA { a[i] = part(x[order[i]]); });
      TransposeLanes(a[0], a[1], a[2], a[3]);
      TransposeLanes(a[4], a[5], a[6], a[7]);
      Unroll<4>([&](auto i) KERNELS_INLINE_LAMBDA {
        LowLanes(a[i], a[i + 4]).StoreU(to[i]);
        HighLanes(a[i], a[i + 4]).StoreU(to[i + 4]);
      });
    };
    float* imaginary[8];
    Unroll<8>([&](auto l) KERNELS_INLINE_LAMBDA { imaginary[l] = lane[l] + 8; });
    turn([](const Complex<V>& z) KERNELS_INLINE_LAMBDA { return z.re; }, lane);
    turn([](const Complex<V>& z) KERNELS_INLINE_LAMBDA { return z.im; }, imaginary);
  }
}

/// As many values of each lane's transform as a lane register holds, interleaved.
template <class V>
KERNELS_INLINE void StoreChunk(const Packed<V>* x, float* const* lane) {
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
KERNELS_INLINE void StorePairs(const Packed<V>* x, float* const* lane) {
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

/// R = 0: any odd radix.
template <class C, int R, Direction dir>
void BottomKernel(const float* src, float* dst, const BottomRun& run) {
  constexpr int count = countOf<C>;
  const int radix = R > 0 ? R : run.radix;
  const std::ptrdiff_t spacing = run.stride * run.total;
  const bool contiguous = run.stride == 1 && run.total >= count;
  // a group of offsets: the last one starts early, over offsets already done
  for (int group = 0; group < run.total; group += count) {
    const int first = Larger(Smaller(group, run.total - count), 0);
    const float* in[count];
    float* out[count];
    for (int l = 0; l < count; ++l) {
      const int j = Smaller(first + LaneOrder<C>()[static_cast<std::size_t>(l)], run.total - 1);
      out[l] = dst + 2 * static_cast<std::ptrdiff_t>(run.place[j]) * radix;
    }
    if (!contiguous)
      for (int l = 0; l < count; ++l)
        in[l] = src + 2 * run.stride * Smaller(first + l, run.total - 1);
    const auto row = [&](int k) KERNELS_INLINE_LAMBDA {
      return contiguous ? LoadInterleaved<C>(src + 2 * (first + k * spacing))
                        : GatherRow<C>(in, k * spacing);
    };
    if constexpr (R > 0) {
      C x[R];
      Unroll<R>([&](auto k) KERNELS_INLINE_LAMBDA { x[k] = row(k); });
      Butterfly<R, dir>(x);
      StoreBlocks<C, R>(x, out);
    } else {
      C x[genericLimit];
      for (int k = 0; k < radix; ++k)
        x[k] = row(k);
      GenericButterfly<dir>(x, radix, run.roots);
      StoreBlocks(x, out, radix);
    }
  }
}

template <class C, Direction dir>
void RunBottom(const float* src, float* dst, const BottomRun& run) {
  if constexpr (std::is_same_v<C, Complex<typename LaneTraits<C>::Vector>>) {
    // a multiple of a group's width ends in no smaller radix
    constexpr int narrowest = countOf<C>;
    switch (run.radix) {
    case 4:
      return BottomKernel<C, narrowest, dir>(src, dst, run);
    case 8:
      return BottomKernel<C, 8, dir>(src, dst, run);
    default:
      return BottomKernel<C, 16, dir>(src, dst, run);
    }
  } else {
    switch (run.radix) {
    case 2:
      return BottomKernel<C, 2, dir>(src, dst, run);
    case 3:
      return BottomKernel<C, 3, dir>(src, dst, run);
    case 4:
      return BottomKernel<C, 4, dir>(src, dst, run);
    case 5:
      return BottomKernel<C, 5, dir>(src, dst, run);
    case 6:
      return BottomKernel<C, 6, dir>(src, dst, run);
    case 7:
      return BottomKernel<C, 7, dir>(src, dst, run);
    case 11:
      return BottomKernel<C, 11, dir>(src, dst, run);
    case 13:
      return BottomKernel<C, 13, dir>(src, dst, run);
    default:
      return BottomKernel<C, 0, dir>(src, dst, run);
    }
  }
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
