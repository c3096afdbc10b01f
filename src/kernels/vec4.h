// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// The four-lane register of the architecture, and what is made of its operations.

#include "kernels/inline.h"

#if defined(__x86_64__)
#include "kernels/x86_64/vec4.h"
#elif defined(__aarch64__)
#include "kernels/arm64/vec4.h"
#endif

#include <cstddef>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// -0 at the even or the odd floats: x ^ SignOdd conjugates interleaved complex values.
alignas(16) constexpr float signOdd[4] = {0.f, -0.f, 0.f, -0.f};
alignas(16) constexpr float signEven[4] = {-0.f, 0.f, -0.f, 0.f};
template <class V>
KERNELS_INLINE V SignOdd() {
  return V::LoadQuad(signOdd);
}
template <class V>
KERNELS_INLINE V SignEven() {
  return V::LoadQuad(signEven);
}

/// Interleaved complex values, a * b.
template <class V>
KERNELS_INLINE V MulInterleaved(V a, V b) {
  return MulAddSub(a, DupEven(b), SwapPairs(a) * DupOdd(b));
}

// Across the whole register.
/// a0 b0 a1 b1 ... over the two results.
KERNELS_INLINE void Interleave(Vec4 a, Vec4 b, Vec4& lo, Vec4& hi) {
  lo = UnpackLo(a, b);
  hi = UnpackHi(a, b);
}
KERNELS_INLINE void Deinterleave(Vec4 lo, Vec4 hi, Vec4& even, Vec4& odd) {
  even = Shuffle<0, 2, 0, 2>(lo, hi);
  odd = Shuffle<1, 3, 1, 3>(lo, hi);
}
/// Complex values in reversed order.
KERNELS_INLINE Vec4 ReversePairs(Vec4 a) {
  return Shuffle<2, 3, 0, 1>(a, a);
}

// A recombination reads one half of a spectrum forwards and the other half backwards. These put
// value m of one register beside value width - m of another.
/// next[0], then cur[width - 1] down to cur[1].
KERNELS_INLINE Vec4 Mirror(Vec4 cur, Vec4 next) {
  const Vec4 t = FirstOf(next, cur);
  return Shuffle<0, 3, 2, 1>(t, t);
}
/// Interleaves registers that hold values in falling order. Each store starts with the last value
/// of the call before, so that all stores are aligned; then the given values follow, from the last
/// to the second.
template <class V>
struct BackwardPairs;
template <>
struct BackwardPairs<Vec4> {
  Vec4 before;
  KERNELS_INLINE explicit BackwardPairs(float even, float odd) : before(Vec4::Pair(even, odd)) {}
  KERNELS_INLINE void Store(Vec4 even, Vec4 odd, float* p) {
    const Vec4 low = UnpackLo(even, odd), high = UnpackHi(even, odd);
    Shuffle<0, 1, 2, 3>(before, high).StoreU(p);
    Shuffle<0, 1, 2, 3>(high, low).StoreU(p + 4);
    before = low;
  }
};

// Interleaved values are taken apart, or put together, inside each lane alone: no step across
// lanes. That leaves them in "column order", in which value ColumnOf(i) stands at place i.
KERNELS_INLINE void LoadColumns(const float* p, Vec4& even, Vec4& odd) {
  Deinterleave(Vec4::LoadU(p), Vec4::LoadU(p + 4), even, odd);
}
/// Of the values at p in reversed order.
KERNELS_INLINE void LoadColumnsReversed(const float* p, Vec4& even, Vec4& odd) {
  const Vec4 lo = Vec4::LoadU(p), hi = Vec4::LoadU(p + 4);
  even = Shuffle<2, 0, 2, 0>(hi, lo);
  odd = Shuffle<3, 1, 3, 1>(hi, lo);
}
template <class V>
KERNELS_INLINE void StoreColumns(V even, V odd, float* p) {
  UnpackLo(even, odd).StoreU(p);
  UnpackHi(even, odd).StoreU(p + V::width);
}
template <class V>
KERNELS_INLINE void StoreColumnsReversed(V even, V odd, float* p) {
  ReversePairs(UnpackHi(even, odd)).StoreU(p);
  ReversePairs(UnpackLo(even, odd)).StoreU(p + V::width);
}
/// Mirror in column order.
KERNELS_INLINE Vec4 MirrorColumns(Vec4 cur, Vec4 next) {
  return Mirror(cur, next);
}

/// Transposes the 4 x 4 floats of each lane.
template <class V>
KERNELS_INLINE void TransposeLanes(V& a, V& b, V& c, V& d) {
  const V ab0 = UnpackLo(a, b), ab1 = UnpackHi(a, b);
  const V cd0 = UnpackLo(c, d), cd1 = UnpackHi(c, d);
  a = UnpackLoPairs(ab0, cd0);
  b = UnpackHiPairs(ab0, cd0);
  c = UnpackLoPairs(ab1, cd1);
  d = UnpackHiPairs(ab1, cd1);
}

/// Transposes V::width x V::width floats.
KERNELS_INLINE void Transpose(Vec4 (&r)[4]) {
  TransposeLanes(r[0], r[1], r[2], r[3]);
}

/// The compiler moves no load and no store across this.
KERNELS_INLINE void KeepOrder() {
  asm volatile("" : : : "memory");
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
