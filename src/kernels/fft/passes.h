// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
//
// The passes of a flat plan over M = 2^L complex values, decimation in time: the first reads the
// source in bit-reversed order, each next one multiplies the span of finished transforms by its
// radix. Between them the values stand in the stage layout, groups of V::width real parts and as
// many imaginary parts. A radix-r butterfly takes r rows, one span apart, which bit reversal has
// left in bit-reversed order.
#pragma once

#include "kernels/fft/butterfly.h"
#include "kernels/vec4.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// Where a pass leaves its results.
enum class Output { Stage, Interleaved };

template <Output output, class V>
KERNELS_INLINE void Put(Complex<V> x, float* p) {
  if constexpr (output == Output::Stage)
    x.StoreU(p);
  else
    x.StoreInterleaved(p);
}

/// One butterfly of a later pass: reads rows of groups, `in` apart, writes them `out` apart.
/// `factor` gives the power p.
template <Direction dir, class V, int radix, class Load, class Factor, class Store>
KERNELS_INLINE void Butterfly(Load load, Factor factor, Store store) {
  using C = Complex<V>;
  if constexpr (radix == 4) {
    C y0 = load(0), y2 = Twist<dir>(load(1), factor(2));
    C y1 = Twist<dir>(load(2), factor(1)), y3 = Twist<dir>(load(3), factor(3));
    Butterfly4<dir>(y0, y1, y2, y3);
    store(0, y0);
    store(1, y1);
    store(2, y2);
    store(3, y3);
  } else {
    C y[8];
    y[0] = load(0);
    y[4] = Twist<dir>(load(1), factor(4));
    y[2] = Twist<dir>(load(2), factor(2));
    y[6] = Twist<dir>(load(3), factor(6));
    y[1] = Twist<dir>(load(4), factor(1));
    y[5] = Twist<dir>(load(5), factor(5));
    y[3] = Twist<dir>(load(6), factor(3));
    y[7] = Twist<dir>(load(7), factor(7));
    Butterfly8<dir>(y);
    store(0, y[0]);
    store(1, y[1]);
    store(2, y[2]);
    store(3, y[3]);
    store(4, y[4]);
    store(5, y[5]);
    store(6, y[6]);
    store(7, y[7]);
  }
}

// With two lanes, the first pass has columns c and c + 2 in one register: blocks i and i + M/16,
// which lie in neighbouring quarters of the vector. The pair (i in the even quarter, its partner in
// the odd one) is kept, for even i, in the even quarter where blocks i and i + 1 belong, for odd i
// in the odd quarter where the partners of i - 1 and i belong. So the second pass finds what it
// needs where it writes, and takes the lanes apart. With one lane, block i stands at its place.

/// Where the first pass leaves the group of block i, in floats; `twice` is 2 i, as in bitRev.
template <class V>
KERNELS_INLINE std::ptrdiff_t PairedBlock(std::ptrdiff_t twice, std::ptrdiff_t M) {
  if constexpr (V::lanes == 1)
    return 4 * twice;
  else
    return 4 * (twice & ~std::ptrdiff_t{2}) + ((twice & 2) >> 1) * (M >> 1);
}

/// Four rows of V::width / 2 columns to as many blocks of the stage buffer.
template <Direction dir, class V>
KERNELS_INLINE void FirstButterfly(V r0, V r1, V r2, V r3, float* even, float* odd) {
  Pairs<V> x0{r0}, x1{r1}, x2{r2}, x3{r3};
  Butterfly4<dir>(x0, x1, x2, x3);
  TransposeLanes(x0.v, x1.v, x2.v, x3.v);
  x0.v.Store(even);
  x1.v.Store(even + V::width);
  x2.v.Store(odd);
  x3.v.Store(odd + V::width);
}

/// The first pass, radix 4, from interleaved values in natural order: rows M/4 apart, neighbouring
/// columns, each to the block that the bit reversal gives.
template <Direction dir, class V>
void FirstPass(const float* src, float* stage, const std::int32_t* bitRev, std::ptrdiff_t M) {
  const float *s0 = src, *s1 = src + M / 2, *s2 = src + M, *s3 = src + 3 * M / 2;
  constexpr int columns = V::width / 2;
  for (std::ptrdiff_t c = 0; c < M / 4; c += columns) {
    float* even = stage + PairedBlock<V>(bitRev[c], M);
    FirstButterfly<dir>(V::LoadU(s0 + 2 * c), V::LoadU(s1 + 2 * c), V::LoadU(s2 + 2 * c),
                        V::LoadU(s3 + 2 * c), even, even + M);
  }
}

/// The first pass from values in bit-reversed order: block i is four values in a row.
template <Direction dir, class V>
void FirstPassReversed(const float* src, float* stage, std::ptrdiff_t M) {
  const std::ptrdiff_t blocks = M / 4 / (V::width / 2);
  for (std::ptrdiff_t i = 0; i < blocks; ++i) {
    const float* s = src + 8 * i;
    const auto row = [&](int r) { return V::GatherPairs(s + 2 * r, M, M / 2); };
    float* even = stage + PairedBlock<V>(2 * i, M);
    FirstButterfly<dir>(row(0), row(2), row(1), row(3), even, even + M);
  }
}

/// The first pass from groups in column order.
template <Direction dir, class V>
void FirstPassColumns(const float* src, float* stage, const std::int32_t* bitRev,
                      std::ptrdiff_t M) {
  using C = Complex<V>;
  for (std::ptrdiff_t c = 0; c < M / 4; c += V::width) {
    C x0 = C::LoadU(src + 2 * c), x1 = C::LoadU(src + 2 * c + M / 2);
    C x2 = C::LoadU(src + 2 * c + M), x3 = C::LoadU(src + 2 * c + 3 * M / 2);
    Butterfly4<dir>(x0, x1, x2, x3);
    TransposeLanes(x0.re, x1.re, x2.re, x3.re);
    TransposeLanes(x0.im, x1.im, x2.im, x3.im);
    float* even = stage + PairedBlock<V>(bitRev[c], M);
    x0.Store(even);
    x1.Store(even + M);
    even = stage + PairedBlock<V>(bitRev[c + V::width / 2], M);
    x2.Store(even);
    x3.Store(even + M);
  }
}

/// The second pass, span 4, in place on `count` values at `data`, and with two lanes on as many
/// `partner` floats behind. Its factors are the same for every block.
template <Direction dir, class V, int radix>
void SecondPass(float* data, std::ptrdiff_t partner, const float* twiddles, std::ptrdiff_t count) {
  using C = Complex<V>;
  C w[radix];
  for (int p = 1; p < radix; ++p)
    w[p] = {V::LoadQuad(twiddles + 8 * (p - 1)), V::LoadQuad(twiddles + 8 * (p - 1) + 4)};
  const auto factor = [&](int p) { return w[p]; };
  for (float* block = data; block < data + 2 * count; block += 8 * radix) {
    if constexpr (V::lanes == 1) {
      Butterfly<dir, V, radix>([&](int m) { return C::Load(block + 8 * m); }, factor,
                               [&](int q, C x) { x.Store(block + 8 * q); });
    } else {
      C y[radix];
      Butterfly<dir, V, radix>(
          [&](int m) { return C::Load(block + 8 * (m & ~1) + (m & 1) * partner); }, factor,
          [&](int q, C x) { y[q] = x; });
      for (int q = 0; q < radix; q += 2) {
        float* out = block + 8 * q;
        C{LowLanes(y[q].re, y[q + 1].re), LowLanes(y[q].im, y[q + 1].im)}.Store(out);
        C{HighLanes(y[q].re, y[q + 1].re), HighLanes(y[q].im, y[q + 1].im)}.Store(out + partner);
      }
    }
  }
}

/// A later pass on `count` values from `data` to `out`, which may be the same.
template <Direction dir, class V, int radix, Output output>
void LaterPass(const float* data, float* out, const float* twiddles, std::ptrdiff_t span,
               std::ptrdiff_t count) {
  using C = Complex<V>;
  constexpr int group = 2 * V::width;
  for (std::ptrdiff_t block = 0; block < 2 * count; block += 2 * span * radix) {
    const float* w = twiddles;
    for (std::ptrdiff_t j = block; j < block + 2 * span; j += group, w += group * (radix - 1))
      Butterfly<dir, V, radix>([&](int m) { return C::Load(data + j + 2 * span * m); },
                               [&](int p) { return C::Load(w + group * (p - 1)); },
                               [&](int q, C x) { Put<output>(x, out + j + 2 * span * q); });
  }
}

/// The last radix-4 pass of a block of column-wise levels: the powers follow from the first.
template <Direction dir, class V>
void SquaringPass(float* data, const float* twiddles, std::ptrdiff_t span) {
  using C = Complex<V>;
  constexpr int group = 2 * V::width;
  for (std::ptrdiff_t j = 0; j < 2 * span; j += group, twiddles += group) {
    const C w1 = C::Load(twiddles), w2 = w1 * w1, w3 = w1 * w2;
    const C w[] = {w1, w1, w2, w3};
    Butterfly<dir, V, 4>([&](int m) { return C::Load(data + j + 2 * span * m); },
                         [&](int p) { return w[p]; },
                         [&](int q, C x) { x.Store(data + j + 2 * span * q); });
  }
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
