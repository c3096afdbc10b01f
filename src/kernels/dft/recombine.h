// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// Between the spectrum of N real samples and the complex spectrum z of the n = N / 2 values
// x[2j] + i x[2j+1]. Values k and n - k are computed together, in groups from both ends. The
// middle group may overlap its neighbours: it is read first and written last.

#include "kernels/complex.h"
#include "kernels/dft/planned_dft.h"

#include <cstddef>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

template <class V>
struct RecombinePair {
  Complex<V> front, back;

  KERNELS_INLINE void Load(const float* z, std::ptrdiff_t n, std::ptrdiff_t k) {
    LoadColumns(z + 2 * k, front.re, front.im);
    LoadColumnsReversed(z + 2 * (n - k - V::width + 1), back.re, back.im);
  }
  KERNELS_INLINE void Store(float* z, std::ptrdiff_t n, std::ptrdiff_t k) const {
    StoreColumns(front.re, front.im, z + 2 * k);
    StoreColumnsReversed(back.re, back.im, z + 2 * (n - k - V::width + 1));
  }
  /// w: cos / 2 and (1 - sin) / 2 of 2 pi k / N.
  KERNELS_INLINE void Forward(Complex<V> w) {
    const V D = front.re - back.re, S = front.im + back.im;
    const V P = MulAdd(S, w.re, D * w.im), Q = NegMulAdd(D, w.re, S * w.im);
    const V re = front.re, im = front.im;
    front = {back.re + P, Q - back.im};
    back = {re - P, Q - im};
  }
  /// w: cos and -sin of 2 pi k / N.
  KERNELS_INLINE void Inverse(Complex<V> w) {
    const V T = front.re + back.re, U = front.im - back.im;
    const V D = front.re - back.re, S = front.im + back.im;
    const V P = NegMulAdd(w.re, S, w.im * D), Q = MulAdd(w.re, D, w.im * S);
    front = {T + P, U + Q};
    back = {T - P, Q - U};
  }
};

/// All k from 1 to n - 1, times `scale`; 0 is the caller's. z may be src.
template <class V, Direction dir, bool scaled>
void RecombineGroupwise(const float* src, float* z, std::ptrdiff_t n, const float* table,
                        float scale) {
  const V factor = V::Set1(scale);
  const auto turn = [=](RecombinePair<V>& pair, const float* w) KERNELS_INLINE_LAMBDA {
    if constexpr (dir == Direction::Forward)
      pair.Forward(Complex<V>::Load(w));
    else
      pair.Inverse(Complex<V>::Load(w));
    if constexpr (scaled) {
      pair.front = pair.front * factor;
      pair.back = pair.back * factor;
    }
  };
  const std::ptrdiff_t last = RecombineGroups(n, Vec::width) - 1;
  RecombinePair<V> middle;
  middle.Load(src, n, RecombineStart(n, Vec::width, last));
  turn(middle, table + last * 2 * V::width);
  for (std::ptrdiff_t group = 0; group < last; ++group) {
    RecombinePair<V> pair;
    pair.Load(src, n, 1 + group * V::width);
    turn(pair, table + group * 2 * V::width);
    pair.Store(z, n, 1 + group * V::width);
  }
  middle.Store(z, n, RecombineStart(n, Vec::width, last));
}

template <Direction dir, bool scaled>
void RecombineAtWidth(const float* src, float* z, std::ptrdiff_t n, const float* table,
                      float scale) {
  if (RecombineWidth(n, Vec::width) == Vec::width)
    RecombineGroupwise<Vec, dir, scaled>(src, z, n, table, scale);
  else if (RecombineWidth(n, Vec::width) == Vec::UpTo8::width)
    RecombineGroupwise<Vec::UpTo8, dir, scaled>(src, z, n, table, scale);
  else
    RecombineGroupwise<Vec4, dir, scaled>(src, z, n, table, scale);
}

/// Forward multiplies the results by `scale`; inverse leaves that to the last pass.
template <Direction dir>
void Recombine(const float* src, float* z, std::ptrdiff_t n, const float* table, float scale) {
  if constexpr (dir == Direction::Forward)
    if (scale != 1.0f) return RecombineAtWidth<dir, true>(src, z, n, table, scale);
  RecombineAtWidth<dir, false>(src, z, n, table, scale);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
