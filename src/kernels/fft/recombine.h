// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
//
// Between the spectrum z of M = N/2 complex values x[2n] + i x[2n + 1] and that of N real samples,
// X. With t = 2 pi k / N:
//   forward: F = conj z[k] - z[M-k], G = F ((1 - sin t) + i cos t) / 2,
//            X[k] = conj(z[M-k] + G), X[M-k] = conj z[k] - G
//   inverse: F = X[k] - conj X[M-k], G = F (-sin t + i cos t),
//            z[k] = X[k] + conj X[M-k] + G, z[M-k] = conj(X[k] + conj X[M-k] - G)
#pragma once

#include "kernels/fft/plan.h"
#include "kernels/vec4.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// Pairs (c, s) at k = 1 + i, i a multiple of V::width / 2.
template <class V>
struct FlatFactors {
  const float* table;
  KERNELS_INLINE V At(std::ptrdiff_t i) const { return V::LoadU(table + 2 * i); }
};
template <class V>
struct TwoLevelFactors {
  const float* table;
  KERNELS_INLINE V At(std::ptrdiff_t i) const {
    const std::ptrdiff_t run = i / fineCount, fine = i % fineCount;
    return MulInterleaved(V::LoadU(table + 2 * fine), V::LoadPair(table + 2 * (fineCount + run)));
  }
};
/// f * (s + i c) for the factors t = (c, s).
template <class V>
KERNELS_INLINE V Turn(V f, V t) {
  return AddSub(f * DupOdd(t), SwapPairs(f) * DupEven(t));
}

/// k from 1 to M/2 from both ends, V::width / 2 at a time; the middle is written by both sides.
/// step(a, b, factors, lo, hi) has k rising in a and lo, and M - k with k rising in b and hi.
template <class V, class Factors, class Step>
KERNELS_INLINE void FromBothEnds(const float* src, float* dst, Factors factors, std::ptrdiff_t M,
                                 Step step) {
  constexpr int values = V::width / 2;
  const float* b = src + 2 * (M - values);
  float* hi = dst + 2 * (M - values);
  for (std::ptrdiff_t i = 0; i < M / 2; i += values) {
    V lo, up;
    step(V::LoadU(src + 2 + 2 * i), ReversePairs(V::LoadU(b - 2 * i)), factors.At(i), lo, up);
    lo.StoreU(dst + 2 + 2 * i);
    ReversePairs(up).StoreU(hi - 2 * i);
  }
}

/// z in place to X[0], X[N/2], X[1], ..., X[N/2 - 1], times `scale`.
template <class V>
void RecombineForward(float* data, const FftSpec& spec, std::ptrdiff_t M, float scale) {
  const float re = data[0], im = data[1];
  data[0] = (re + im) * scale;
  data[1] = (re - im) * scale;
  const V conj = SignOdd<V>(), s = V::Set1(scale), half = V::Set1(0.5f * scale);
  if (M >= 1 << twoLevelFrom)
    FromBothEnds<V>(data, data, TwoLevelFactors<V>{spec.recombFwd}, M,
                    [=](V a, V b, V t, V& lo, V& hi) {
                      const V ca = (a ^ conj), f = (ca - b) * half, g = f + Turn(f, t);
                      lo = (b * s + g) ^ conj;
                      hi = ca * s - g;
                    });
  else
    FromBothEnds<V>(data, data, FlatFactors<V>{spec.recombFwd}, M,
                    [=](V a, V b, V t, V& lo, V& hi) {
                      const V ca = (a ^ conj), g = Turn(ca - b, t);
                      lo = ((b + g) ^ conj) * s;
                      hi = (ca - g) * s;
                    });
}

/// CCS to z, times `scale`; src may be dst.
template <class V>
void RecombineInverse(const float* src, float* dst, const FftSpec& spec, std::ptrdiff_t M,
                      float scale) {
  const float first = src[0], last = src[2 * M];
  const V conj = SignOdd<V>(), s = V::Set1(scale);
  const auto step = [=](V a, V b, V t, V& lo, V& hi) {
    const V cb = (b ^ conj), sum = a + cb, g = Turn(a - cb, t);
    lo = (sum + g) * s;
    hi = ((sum - g) ^ conj) * s;
  };
  if (M >= 1 << twoLevelFrom)
    FromBothEnds<V>(src, dst, TwoLevelFactors<V>{spec.recombInv}, M, step);
  else
    FromBothEnds<V>(src, dst, FlatFactors<V>{spec.recombInv}, M, step);
  dst[0] = (first + last) * scale;
  dst[1] = (first - last) * scale;
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
