// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
//
// Between the spectrum z of M = N/2 complex values x[2n] + i x[2n + 1] and that of N real samples,
// X. With a = z[k], b = z[M-k], t = 2 pi k / N, D = Re a - Re b, S = Im a + Im b:
//   forward: A = cos t / 2, B = (1 - sin t) / 2, P = S A + D B, Q = S B - D A,
//            X[k] = (Re b + P, Q - Im b), X[M-k] = (Re a - P, Q - Im a)
// and with a = X[k], b = X[M-k]:
//   inverse: P = -sin t D - cos t S, Q = cos t D - sin t S, T = Re a + Re b, U = Im a - Im b,
//            z[k] = (T + P, U + Q), z[M-k] = (T - P, Q - U)
// k runs from 1 to M/2 in groups of V::width, mirrored against whole groups of M - k; the middle
// comes out of both sides.
#pragma once

#include "kernels/complex.h"
#include "kernels/fft/passes.h"
#include "kernels/fft/plan.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// Group after group of the table.
template <class V>
struct FlatFactors {
  const float* table;
  KERNELS_INLINE Complex<V> At(std::ptrdiff_t group) const {
    return Complex<V>::Load(table + 2 * V::width * group);
  }
};
/// The product of a fine and a coarse factor: (cos t, -sin t).
template <class V>
struct TwoLevelFactors {
  const float* table;
  KERNELS_INLINE Complex<V> At(std::ptrdiff_t group) const {
    constexpr std::ptrdiff_t groups = fineCount / V::width;
    const float* coarse = table + 2 * (fineCount + group / groups);
    return Complex<V>::Load(table + 2 * V::width * (group % groups)) *
           Complex<V>{V::Set1(coarse[0]), V::Set1(coarse[1])};
  }
};
/// (A, B) of the forward step out of (cos t, -sin t).
template <class V>
struct TwoLevelForward {
  TwoLevelFactors<V> factors;
  KERNELS_INLINE Complex<V> At(std::ptrdiff_t group) const {
    const V half = V::Set1(0.5f);
    const Complex<V> t = factors.At(group) * half;
    return {t.re, t.im + half};
  }
};

template <bool scaled, class V, class Factors>
void ForwardGroups(float* data, Factors factors, std::ptrdiff_t M, float scale) {
  using C = Complex<V>;
  constexpr int width = 2 * V::width;  // floats of a group
  const float re = data[0], im = data[V::width];
  BackwardPairs<V> rising((re + im) * scale, (re - im) * scale);
  const V s = V::Set1(scale);
  C current = C::LoadU(data);
  for (std::ptrdiff_t g = 0; g < M / width; ++g) {
    const std::ptrdiff_t low = g * width, high = 2 * M - width - low;
    const C next = C::LoadU(data + low + width), b = C::LoadU(data + high), t = factors.At(g);
    const C a = {Mirror(current.re, next.re), Mirror(current.im, next.im)};
    current = next;
    const V D = a.re - b.re, S = a.im + b.im;
    const V P = MulAdd(S, t.re, D * t.im), Q = NegMulAdd(D, t.re, S * t.im);
    C x = {a.re - P, Q - a.im}, y = {b.re + P, Q - b.im};
    if constexpr (scaled) {
      x = x * s;
      y = y * s;
    }
    x.StoreInterleaved(data + high);
    rising.Store(y.re, y.im, data + low);
  }
}

/// z in stage layout to X[0], X[N/2], X[1], ..., X[N/2 - 1], times `scale`.
template <class V>
void RecombineForward(float* data, const float* table, std::ptrdiff_t M, float scale) {
  if (M >= 1 << twoLevelFrom)
    ForwardGroups<true, V>(data, TwoLevelForward<V>{{table}}, M, scale);
  else if (scale == 1.0f)
    ForwardGroups<false, V>(data, FlatFactors<V>{table}, M, scale);
  else
    ForwardGroups<true, V>(data, FlatFactors<V>{table}, M, scale);
}

template <Output output, class V, class Factors>
void InverseGroups(const float* src, float* dst, Factors factors, std::ptrdiff_t M,
                   Complex<V> first) {
  using C = Complex<V>;
  constexpr int width = 2 * V::width;
  C before = first;
  for (std::ptrdiff_t g = 0; g < M / width; ++g) {
    const std::ptrdiff_t low = g * width, high = 2 * M - width - low;
    C a, b;
    LoadColumnsReversed(src + low + 2, a.re, a.im);
    LoadColumns(src + high, b.re, b.im);
    const C t = factors.At(g);
    const V D = a.re - b.re, S = a.im + b.im, T = a.re + b.re, U = a.im - b.im;
    const V P = NegMulAdd(t.re, S, t.im * D), Q = MulAdd(t.re, D, t.im * S);
    const C z = {T + P, U + Q}, mirrored = {T - P, Q - U};
    const C rising = {MirrorColumns(z.re, before.re), MirrorColumns(z.im, before.im)};
    before = z;
    // Whole groups, as the next pass loads them: a load that overlaps two stores waits for both.
    if constexpr (output == Output::Stage) {
      rising.StoreU(dst + low);
      mirrored.StoreU(dst + high);
    } else {
      StoreColumns(rising, dst + low);
      StoreColumns(mirrored, dst + high);
    }
  }
}

/// CCS to z; src may be dst. Output::Stage leaves groups in column order.
template <Output output, class V>
void RecombineInverse(const float* src, float* dst, const float* table, std::ptrdiff_t M) {
  const Complex<V> first = {V::Set1(src[0] + src[2 * M]), V::Set1(src[0] - src[2 * M])};
  if (M >= 1 << twoLevelFrom)
    InverseGroups<output>(src, dst, TwoLevelFactors<V>{table}, M, first);
  else
    InverseGroups<output>(src, dst, FlatFactors<V>{table}, M, first);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
