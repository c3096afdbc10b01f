// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// Two ways to hold several complex values in registers, with the same operations, so that every
// butterfly and every pass is written once:
//   Complex<V>  real and imaginary parts apart: V::width values
//   Pairs<V>    real and imaginary parts in turn: V::width / 2 values
// In memory both take the same place. A group of Complex<V> is V::width real parts and as many
// imaginary parts, in column order: what interleaves without a step across lanes.

#include "kernels/vec4.h"

#include <cstddef>
#include <type_traits>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD::Dft {

// Nothing of the standard library's inline code belongs into a build: the linker might keep one
// build's copy for all.
template <class T>
KERNELS_INLINE constexpr T Smaller(T a, T b) {
  return a < b ? a : b;
}

/// One complex value: the low half of a 128-bit register.
struct Vec2 {
  static constexpr int width = 2;
  __m128 v;

  static KERNELS_INLINE Vec2 LoadU(const float* p) {
    return {_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)))};
  }
  static KERNELS_INLINE Vec2 Load(const float* p) { return LoadU(p); }
  KERNELS_INLINE void StoreU(float* p) const { _mm_storel_pi(reinterpret_cast<__m64*>(p), v); }
  static KERNELS_INLINE Vec2 Set1(float x) { return {_mm_set1_ps(x)}; }
  static KERNELS_INLINE Vec2 LoadQuad(const float* p) { return {_mm_loadu_ps(p)}; }
  friend KERNELS_INLINE Vec2 operator+(Vec2 a, Vec2 b) { return {_mm_add_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec2 operator-(Vec2 a, Vec2 b) { return {_mm_sub_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec2 operator*(Vec2 a, Vec2 b) { return {_mm_mul_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec2 operator^(Vec2 a, Vec2 b) { return {_mm_xor_ps(a.v, b.v)}; }
};
KERNELS_INLINE Vec2 AddSub(Vec2 a, Vec2 b) {
  return {_mm_addsub_ps(a.v, b.v)};
}
KERNELS_INLINE Vec2 SwapPairs(Vec2 a) {
  return {_mm_shuffle_ps(a.v, a.v, 0xB1)};
}
KERNELS_INLINE Vec2 DupEven(Vec2 a) {
  return {_mm_moveldup_ps(a.v)};
}
KERNELS_INLINE Vec2 DupOdd(Vec2 a) {
  return {_mm_movehdup_ps(a.v)};
}
KERNELS_INLINE Vec2 ReversePairs(Vec2 a) {
  return a;
}

template <class C>
struct LaneTraits;
template <class V>
struct LaneTraits<Complex<V>> {
  using Vector = V;
  static constexpr int count = V::width;
};
template <>
struct LaneTraits<Complex<float>> {
  using Vector = float;
  static constexpr int count = 1;
};
template <class V>
struct LaneTraits<Pairs<V>> {
  using Vector = V;
  static constexpr int count = V::width / 2;
};
/// Complex values in one C.
template <class C>
inline constexpr int countOf = LaneTraits<C>::count;

template <class V>
KERNELS_INLINE V Splat(float x) {
  if constexpr (std::is_same_v<V, float>)
    return x;
  else
    return V::Set1(x);
}
template <class C>
KERNELS_INLINE C Scaled(C a, float x) {
  return a * Splat<typename LaneTraits<C>::Vector>(x);
}

template <class V>
KERNELS_INLINE V Negated(V x) {
  if constexpr (std::is_same_v<V, float>)
    return -x;
  else
    return x ^ V::Set1(-0.0f);
}
/// -i x forward, i x inverse.
template <Direction dir, class V>
KERNELS_INLINE Complex<V> Turned(Complex<V> x) {
  if constexpr (dir == Direction::Forward)
    return {x.im, Negated(x.re)};
  else
    return {Negated(x.im), x.re};
}
template <Direction dir, class V>
KERNELS_INLINE Pairs<V> Turned(Pairs<V> x) {
  if constexpr (dir == Direction::Forward)
    return {SwapPairs(x.v) ^ SignOdd<V>()};
  else
    return {SwapPairs(x.v) ^ SignEven<V>()};
}
template <class V>
KERNELS_INLINE Pairs<V> Conjugate(Pairs<V> x) {
  return {x.v ^ SignOdd<V>()};
}
template <class V>
KERNELS_INLINE Pairs<V> Reversed(Pairs<V> x) {
  return {ReversePairs(x.v)};
}

/// Keeps a loaded value in its register: without a third operand the compiler would rather load it
/// again for each product, and the load ports are what the stages wait for.
template <class V>
KERNELS_INLINE Complex<V> Held(Complex<V> x) {
  asm("" : "+x"(x.re.v), "+x"(x.im.v));
  return x;
}
template <class V>
KERNELS_INLINE Pairs<V> Held(Pairs<V> x) {
  asm("" : "+x"(x.v.v));
  return x;
}

template <class V>
KERNELS_INLINE void StoreInterleaved(Complex<V> x, float* p) {
  StoreColumns(x.re, x.im, p);
}
template <class V>
KERNELS_INLINE void StoreInterleaved(Pairs<V> x, float* p) {
  x.StoreU(p);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD::Dft
