// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// Two ways to hold several complex values in registers, with the same operations, so that every
// butterfly and every pass is written once:
//   Complex<V>  real and imaginary parts apart: V::width values (from the vector headers)
//   Packed<V>   real and imaginary parts in turn: V::width / 2 values
// In memory both take the same place: a group of Complex<V> holds V::width values as V::width real
// parts and V::width imaginary parts, in the order of GroupOrder.

#include "kernels/vec4.h"

#include <array>
#include <cstddef>
#include <type_traits>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

// Nothing of the standard library's inline code belongs into a build: the linker might keep one
// build's copy for all.
template <class T>
KERNELS_INLINE constexpr T Smaller(T a, T b) {
  return a < b ? a : b;
}
template <class T>
KERNELS_INLINE constexpr T Larger(T a, T b) {
  return a > b ? a : b;
}

/// Which value stands at each place of a group: with eight, the order that two unpacks inside the
/// lanes turn into interleaved values.
template <class V>
constexpr std::array<int, V::width> GroupOrder() {
  if constexpr (V::lanes == 1)
    return {0, 1, 2, 3};
  else
    return {0, 1, 4, 5, 2, 3, 6, 7};
}

/// One complex value: the low half of a 128-bit register.
struct Vec2 {
  static constexpr int width = 2;
  __m128 v;

  static KERNELS_INLINE Vec2 LoadU(const float* p) {
    return {_mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(p)))};
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

template <class V>
struct Packed {
  V v;
  static KERNELS_INLINE Packed Load(const float* p) { return {V::Load(p)}; }
  static KERNELS_INLINE Packed LoadU(const float* p) { return {V::LoadU(p)}; }
  KERNELS_INLINE void StoreU(float* p) const { v.StoreU(p); }
  friend KERNELS_INLINE Packed operator+(Packed a, Packed b) { return {a.v + b.v}; }
  friend KERNELS_INLINE Packed operator-(Packed a, Packed b) { return {a.v - b.v}; }
  friend KERNELS_INLINE Packed operator*(Packed a, V s) { return {a.v * s}; }
  friend KERNELS_INLINE Packed operator*(Packed a, Packed b) {
    return {AddSub(a.v * DupEven(b.v), SwapPairs(a.v) * DupOdd(b.v))};
  }
};

template <class V>
KERNELS_INLINE Packed<V> Conjugate(Packed<V> a) {
  return {a.v ^ SignOdd<V>()};
}
template <class V>
KERNELS_INLINE Packed<V> Reversed(Packed<V> a) {
  return {ReversePairs(a.v)};
}

template <Direction dir, class V>
KERNELS_INLINE Packed<V> Twist(Packed<V> x, Packed<V> w) {
  if constexpr (dir == Direction::Forward)
    return x * w;
  else
    return {x.v * DupEven(w.v) + ((SwapPairs(x.v) * DupOdd(w.v)) ^ SignOdd<V>())};
}
template <Direction dir, class V>
KERNELS_INLINE Packed<V> AddTurned(Packed<V> a, Packed<V> b) {
  if constexpr (dir == Direction::Forward)
    return {a.v + (SwapPairs(b.v) ^ SignOdd<V>())};
  else
    return {AddSub(a.v, SwapPairs(b.v))};
}
template <Direction dir, class V>
KERNELS_INLINE Packed<V> SubTurned(Packed<V> a, Packed<V> b) {
  return AddTurned < dir == Direction::Forward ? Direction::Inverse : Direction::Forward > (a, b);
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
struct LaneTraits<Packed<V>> {
  using Vector = V;
  static constexpr int count = V::width / 2;
};
/// Complex values in one C.
template <class C>
inline constexpr int countOf = LaneTraits<C>::count;

/// Which of neighbouring values in memory stands in each lane once loaded.
template <class C>
constexpr std::array<int, static_cast<std::size_t>(countOf<C>)> LaneOrder() {
  using V = typename LaneTraits<C>::Vector;
  if constexpr (countOf<C> == V::width)
    return GroupOrder<V>();
  else if constexpr (countOf<C> == 4)
    return {0, 1, 2, 3};
  else if constexpr (countOf<C> == 2)
    return {0, 1};
  else
    return {0};
}

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
KERNELS_INLINE Packed<V> Turned(Packed<V> x) {
  if constexpr (dir == Direction::Forward)
    return {SwapPairs(x.v) ^ SignOdd<V>()};
  else
    return {SwapPairs(x.v) ^ SignEven<V>()};
}

/// Interleaved values in memory to and from a group.
template <class V>
KERNELS_INLINE Complex<V> Group(V lo, V hi) {
  return {Shuffle<0, 2, 0, 2>(lo, hi), Shuffle<1, 3, 1, 3>(lo, hi)};
}
template <class V>
KERNELS_INLINE Packed<V> Group(V v) {
  return {v};
}
template <class C>
KERNELS_INLINE C LoadInterleaved(const float* p) {
  using V = typename LaneTraits<C>::Vector;
  if constexpr (countOf<C> == V::width)
    return Group(V::LoadU(p), V::LoadU(p + V::width));
  else
    return C::LoadU(p);
}
template <class V>
KERNELS_INLINE void StoreInterleaved(Complex<V> z, float* p) {
  UnpackLo(z.re, z.im).StoreU(p);
  UnpackHi(z.re, z.im).StoreU(p + V::width);
}
template <class V>
KERNELS_INLINE void StoreInterleaved(Packed<V> z, float* p) {
  z.StoreU(p);
}

/// The same with the values in reversed order: `p` is where the last of them stands in memory.
template <class V>
KERNELS_INLINE Complex<V> LoadReversed(const float* p) {
  if constexpr (V::lanes == 1) {
    const V lo = V::LoadU(p), hi = V::LoadU(p + 4);
    return {Shuffle<2, 0, 2, 0>(hi, lo), Shuffle<3, 1, 3, 1>(hi, lo)};
  } else {
    const V lo = V::LoadLanes(p + 4, -4), hi = V::LoadLanes(p + 12, -4);
    return {Shuffle<2, 0, 2, 0>(hi, lo), Shuffle<3, 1, 3, 1>(hi, lo)};
  }
}
template <class V>
KERNELS_INLINE void StoreReversed(Complex<V> z, float* p) {
  const V hi = UnpackLo(z.re, z.im), lo = UnpackHi(z.re, z.im);
  const V hiTurned = Shuffle<2, 3, 0, 1>(hi, hi), loTurned = Shuffle<2, 3, 0, 1>(lo, lo);
  if constexpr (V::lanes == 1) {
    loTurned.StoreU(p);
    hiTurned.StoreU(p + 4);
  } else {
    loTurned.StoreLanes(p + 4, -4);
    hiTurned.StoreLanes(p + 12, -4);
  }
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
