// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
//
// The passes of a flat plan over M = 2^L complex values, decimation in time: the first reads the
// source in bit-reversed order, each next one multiplies the span of finished transforms by its
// radix. Between them the values stand in the stage layout, groups of V::width real parts and as
// many imaginary parts. A radix-r butterfly takes r rows, one span apart, which bit reversal has
// left in bit-reversed order.
#pragma once

#include "kernels/butterfly.h"
#include "kernels/complex.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// Where the second pass finds what the first left: in the stage layout, or in groups of four real
/// and four imaginary parts in the order of the blocks.
enum class Input { Stage, Fours };
template <Output output, class V>
KERNELS_INLINE void Put(Complex<V> x, float* p, V scale) {
  if constexpr (output == Output::Stage)
    x.StoreU(p);
  else if constexpr (output == Output::Interleaved)
    x.StoreInterleaved(p);
  else
    (x * scale).StoreInterleaved(p);
}

/// One butterfly of a later pass: reads rows of groups, `in` apart, writes them `out` apart.
/// `factor` returns the twiddle of power p.
template <Direction dir, class V, int radix, class Load, class Factor, class Store>
KERNELS_INLINE void PassButterfly(Load load, Factor factor, Store store) {
  constexpr int rowOf[] = {0, 4, 2, 6, 1, 5, 3, 7};  // of a power, at radix 8
  const auto value = [&](int power) KERNELS_INLINE_LAMBDA {
    const Complex<V> x = load(rowOf[power * 8 / radix]);
    return power == 0 ? x : TimesTwiddle<dir>(InRegister(x), LoadedOnce(factor(power)));
  };
  Complex<V> y[radix];
  if constexpr (radix == 8) {
    Butterfly8<dir>(y, value);
  } else {
    y[0] = value(0);
    y[2] = value(2);
    y[1] = value(1);
    y[3] = value(3);
    Butterfly<4, dir>(y);
  }
  Unroll<radix>([&](auto q) KERNELS_INLINE_LAMBDA { store(q, y[q]); });
}

// With two lanes, the first pass computes columns c and c + 2 in one register. They belong to block
// i and to its partner i + M/16, in the next quarter of the vector. It stores the register whole.
// The second pass reads and writes the same places, and separates the lanes there:
//
//   places             of blocks i and i + 1      of their partners         (i even)
//   after the first    i, partner of i            i + 1, partner of i + 1
//   after the second   i, i + 1                   partners of i and of i + 1
//
// With one lane, block i is stored at its place. With four lanes, the first pass has radix 16 and
// stores a block of 16, one group, at its place; there is no second.

/// The radix-4 butterflies of V::width / 2 neighbouring columns, from four rows. The results are
/// two groups, of the even columns and of the odd ones.
template <Direction dir, class V>
struct FirstButterflies {
  Complex<V> even, odd;
  KERNELS_INLINE FirstButterflies(V r0, V r1, V r2, V r3) {
    Pairs<V> x[] = {{r0}, {r1}, {r2}, {r3}};
    Butterfly<4, dir>(x);
    TransposeLanes(x[0].v, x[1].v, x[2].v, x[3].v);
    even = {x[0].v, x[1].v};
    odd = {x[2].v, x[3].v};
  }
  /// From rows `stride` floats apart.
  static KERNELS_INLINE FirstButterflies Load(const float* p, std::ptrdiff_t stride) {
    return {V::LoadU(p), V::LoadU(p + stride), V::LoadU(p + 2 * stride), V::LoadU(p + 3 * stride)};
  }
};

template <class V>
constexpr int groupsOfLine = sizeof(Complex<V>) < 64 ? 64 / sizeof(Complex<V>) : 1;

/// The first pass, radix 4 or 16, from interleaved values in natural order: rows M/4 or M/16 apart,
/// neighbouring columns, each to its place in `blocks`, in floats. Where a group is half a cache
/// line, columns M/8 apart are computed together: their blocks are neighbours, and fill the line
/// while it is in the cache.
template <Direction dir, class V>
void FirstPass(const float* src, float* stage, const std::int32_t* blocks, std::ptrdiff_t M) {
  constexpr int columns = V::width / 2, together = groupsOfLine<V>;
  if constexpr (V::lanes == 4) {
    for (std::ptrdiff_t c = 0; c < M / V::width; c += columns) {
      Complex<V> group[columns];
      TransformRows<dir>(src + 2 * c, 2 * (M / V::width), group);
      for (int i = 0; i < columns; ++i)
        group[i].Store(stage + blocks[c + i]);
    }
    return;
  }
  for (std::ptrdiff_t left = 0; left < M / 4 / together; left += columns)
    for (int i = 0; i < together; ++i) {
      const std::ptrdiff_t c = left + i * (M / 8);
      const auto y = FirstButterflies<dir, V>::Load(src + 2 * c, M / 2);
      float* even = stage + blocks[c];
      y.even.StoreU(even);
      y.odd.StoreU(even + M);
    }
}

/// The first pass from groups in column order.
template <Direction dir, class V>
void FirstPassColumns(const float* src, float* stage, const std::int32_t* blocks,
                      std::ptrdiff_t M) {
  using C = Complex<V>;
  constexpr int together = groupsOfLine<V>;
  for (std::ptrdiff_t left = 0; left < M / 4 / together; left += V::width)
    for (int i = 0; i < together; ++i) {
      const std::ptrdiff_t c = left + i * (M / 8);
      const float* s = src + 2 * c;
      C x[] = {C::LoadU(s), C::LoadU(s + M / 2), C::LoadU(s + M), C::LoadU(s + 3 * M / 2)};
      Butterfly<4, dir>(x);
      TransposeLanes(x[0].re, x[1].re, x[2].re, x[3].re);
      TransposeLanes(x[0].im, x[1].im, x[2].im, x[3].im);
      float* even = stage + blocks[c];
      x[0].Store(even);
      x[1].Store(even + M);
      even = stage + blocks[c + V::width / 2];
      x[2].Store(even);
      x[3].Store(even + M);
    }
}

/// The second pass, span 4, in place on `count` values at `data`; with two lanes also on as many
/// values `partner` floats behind them. All blocks have the same factors.
template <Direction dir, class V, int radix, Input input>
void SecondPass(float* data, std::ptrdiff_t partner, const float* twiddles, std::ptrdiff_t count) {
  using C = Complex<V>;
  C w[radix];
  for (int p = 1; p < radix; ++p)
    w[p] = {V::LoadQuad(twiddles + 8 * (p - 1)), V::LoadQuad(twiddles + 8 * (p - 1) + 4)};
  const auto factor = [&](int p) { return w[p]; };
  for (float* block = data; block < data + 2 * count; block += 8 * radix) {
    if constexpr (V::lanes == 1) {
      PassButterfly<dir, V, radix>([&](int m) { return C::Load(block + 8 * m); }, factor,
                                   [&](int q, C x) { x.Store(block + 8 * q); });
    } else {
      const auto load = [&](int m) -> C {
        const float* p = block + 8 * m;
        if constexpr (input == Input::Fours)
          return {V::LoadLanes(p, partner), V::LoadLanes(p + 4, partner)};
        else
          return C::Load(m & 1 ? p - 8 + partner : p);
      };
      C y[radix];
      PassButterfly<dir, V, radix>(load, factor, [&](int q, C x) { y[q] = x; });
      for (int q = 0; q < radix; q += 2) {
        float* out = block + 8 * q;
        C{LowLanes(y[q].re, y[q + 1].re), LowLanes(y[q].im, y[q + 1].im)}.Store(out);
        C{HighLanes(y[q].re, y[q + 1].re), HighLanes(y[q].im, y[q + 1].im)}.Store(out + partner);
      }
    }
  }
}

/// With four lanes: the second pass, radix 4, from groups of four to groups of sixteen, in place.
template <Direction dir, class V>
void SecondPassOfFours(float* data, std::ptrdiff_t count) {
  using C = Complex<V>;
  const auto factor = [](int p) KERNELS_INLINE_LAMBDA {
    const float* w = twiddlesOf<4, 16>.data[p - 1];
    return C{V::LoadQuad(w), V::LoadQuad(w + 4)};
  };
  // Four blocks of 16 values at a time, one to each lane.
  for (float* block = data; block < data + 2 * count; block += 8 * V::width) {
    C y[4];
    PassButterfly<dir, V, 4>(
        [&](int m) {
          return C{V::LoadLanes(block + 8 * m, 32), V::LoadLanes(block + 8 * m + 4, 32)};
        },
        factor, [&](int q, C x) { y[q] = x; });
    TransposeQuads(y[0].re, y[1].re, y[2].re, y[3].re);
    TransposeQuads(y[0].im, y[1].im, y[2].im, y[3].im);
    for (int i = 0; i < 4; ++i)
      y[i].Store(block + 2 * V::width * i);
  }
}

/// A later pass on `count` values from `data` to `out`, which may be the same. Only Output::Scaled
/// reads `scale`.
template <Direction dir, class V, int radix, Output output>
void LaterPass(const float* data, float* out, const float* twiddles, std::ptrdiff_t span,
               std::ptrdiff_t count, float scale) {
  using C = Complex<V>;
  const V factor = V::Set1(scale);
  constexpr int group = 2 * V::width;
  for (std::ptrdiff_t block = 0; block < 2 * count; block += 2 * span * radix) {
    const float* w = twiddles;
    for (std::ptrdiff_t j = block; j < block + 2 * span; j += group, w += group * (radix - 1))
      PassButterfly<dir, V, radix>(
          [&](int m) { return C::Load(data + j + 2 * span * m); },
          [&](int p) { return C::Load(w + group * (p - 1)); },
          [&](int q, C x) { Put<output>(x, out + j + 2 * span * q, factor); });
  }
}

/// The first of the column-wise levels: rows of `columns` values, `rowStride` floats apart in
/// `data`, one behind the other in `work`.
template <Direction dir, class V, int radix>
void GatheringPass(const float* data, std::ptrdiff_t rowStride, float* work, const float* twiddles,
                   std::ptrdiff_t columns, std::ptrdiff_t rows) {
  using C = Complex<V>;
  constexpr int group = 2 * V::width;
  for (std::ptrdiff_t r = 0; r < rows; r += radix, data += radix * rowStride) {
    const float* w = twiddles;
    for (std::ptrdiff_t j = 0; j < 2 * columns; j += group, w += group * (radix - 1))
      PassButterfly<dir, V, radix>([&](int m) { return C::LoadU(data + j + rowStride * m); },
                                   [&](int p) { return C::Load(w + group * (p - 1)); },
                                   [&](int q, C x) { x.Store(work + j + 2 * columns * q); });
    work += radix * 2 * columns;
  }
}

/// The last of the column-wise levels, radix 4, back to `data`. The table has the first power of
/// each twiddle only; the others are its products.
template <Direction dir, class V, Output output>
void ScatteringPass(const float* work, float* data, std::ptrdiff_t rowStride, const float* twiddles,
                    std::ptrdiff_t columns, std::ptrdiff_t rows, float scale) {
  using C = Complex<V>;
  constexpr int group = 2 * V::width;
  const V factor = V::Set1(scale);
  const std::ptrdiff_t quarter = rows / 4, workQuarter = quarter * 2 * columns;
  for (std::ptrdiff_t r = 0; r < quarter; ++r, data += rowStride)
    for (std::ptrdiff_t j = 0; j < 2 * columns; j += group, work += group, twiddles += group) {
      const C w1 = C::Load(twiddles), w2 = w1 * w1, w3 = w1 * w2;
      const C w[] = {w1, w1, w2, w3};
      PassButterfly<dir, V, 4>(
          [&](int m) { return C::Load(work + workQuarter * m); }, [&](int p) { return w[p]; },
          [&](int q, C x) { Put<output>(x, data + j + quarter * rowStride * q, factor); });
    }
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
