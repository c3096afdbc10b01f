// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// Two ways to hold several complex values in registers, with the same operations, so that every
// butterfly and every pass is written once:
//   Complex<V>  real and imaginary parts in registers of their own: V::width values
//   Pairs<V>    real and imaginary parts in turn, as in memory: V::width / 2 values
// In memory both take the same place. A group of Complex<V> is V::width real parts, then as many
// imaginary parts.

#include "kernels/vec4.h"

#include <cstddef>
#include <type_traits>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

// A build uses no inline function of the standard library: the linker might keep one build's copy
// of it for the whole program.
template <class T>
KERNELS_INLINE constexpr T Smaller(T a, T b) {
  return a < b ? a : b;
}

/// x in every float of V, which may be a float itself.
template <class V>
KERNELS_INLINE V Broadcast(float x) {
  if constexpr (std::is_same_v<V, float>)
    return x;
  else
    return V::Set1(x);
}

// Products with a sum. These round twice; a build that fuses them has overloads for its registers,
// which round once.
template <class V>
inline constexpr bool isFused = false;
/// a b + c
template <class V>
KERNELS_INLINE V MulAdd(V a, V b, V c) {
  return a * b + c;
}
/// c - a b
template <class V>
KERNELS_INLINE V NegMulAdd(V a, V b, V c) {
  return c - a * b;
}
/// Even floats a b - c, odd floats a b + c.
template <class V>
KERNELS_INLINE V MulAddSub(V a, V b, V c) {
  return AddSub(a * b, c);
}
/// Even floats a b + c, odd floats a b - c.
template <class V>
KERNELS_INLINE V MulSubAdd(V a, V b, V c) {
  return a * b + (c ^ SignOdd<V>());
}

/// Real and imaginary parts apart.
template <class V>
struct Complex {
  V re, im;
  /// A group of the stage layout: V::width real parts, then as many imaginary parts.
  static KERNELS_INLINE Complex Load(const float* p) { return {V::Load(p), V::Load(p + V::width)}; }
  static KERNELS_INLINE Complex LoadU(const float* p) {
    return {V::LoadU(p), V::LoadU(p + V::width)};
  }
  KERNELS_INLINE void Store(float* p) const {
    re.Store(p);
    im.Store(p + V::width);
  }
  KERNELS_INLINE void StoreU(float* p) const {
    re.StoreU(p);
    im.StoreU(p + V::width);
  }
  /// As V::width interleaved complex values.
  KERNELS_INLINE void StoreInterleaved(float* p) const {
    V lo, hi;
    Interleave(re, im, lo, hi);
    lo.StoreU(p);
    hi.StoreU(p + V::width);
  }
  static KERNELS_INLINE Complex LoadInterleaved(const float* p) {
    Complex z;
    Deinterleave(V::LoadU(p), V::LoadU(p + V::width), z.re, z.im);
    return z;
  }
  friend KERNELS_INLINE Complex operator+(Complex a, Complex b) {
    return {a.re + b.re, a.im + b.im};
  }
  friend KERNELS_INLINE Complex operator-(Complex a, Complex b) {
    return {a.re - b.re, a.im - b.im};
  }
  friend KERNELS_INLINE Complex operator*(Complex a, V s) { return {a.re * s, a.im * s}; }
  friend KERNELS_INLINE Complex operator*(Complex a, Complex b) {
    return {NegMulAdd(a.im, b.im, a.re * b.re), MulAdd(a.im, b.re, a.re * b.im)};
  }
};
template <class V>
KERNELS_INLINE Complex<V> MulAdd(Complex<V> a, V s, Complex<V> c) {
  return {MulAdd(a.re, s, c.re), MulAdd(a.im, s, c.im)};
}
template <class V>
KERNELS_INLINE Complex<V> NegMulAdd(Complex<V> a, V s, Complex<V> c) {
  return {NegMulAdd(a.re, s, c.re), NegMulAdd(a.im, s, c.im)};
}

enum class Direction { Forward, Inverse };
/// How a pass stores its results: in the layout that the next pass reads, interleaved, or
/// multiplied by the scale and interleaved.
enum class Output { Stage, Interleaved, Scaled };

/// x times a twiddle factor: x * w forward, x * conj(w) inverse.
template <Direction dir, class V>
KERNELS_INLINE Complex<V> TimesTwiddle(Complex<V> x, Complex<V> w) {
  if constexpr (dir == Direction::Forward)
    return x * w;
  else
    return {MulAdd(x.im, w.im, x.re * w.re), NegMulAdd(x.re, w.im, x.im * w.re)};
}
/// a - i b forward, a + i b inverse: a quarter turn costs no multiplication.
template <Direction dir, class V>
KERNELS_INLINE Complex<V> AddQuarterTurn(Complex<V> a, Complex<V> b) {
  if constexpr (dir == Direction::Forward)
    return {a.re + b.im, a.im - b.re};
  else
    return {a.re - b.im, a.im + b.re};
}
template <Direction dir, class V>
KERNELS_INLINE Complex<V> SubQuarterTurn(Complex<V> a, Complex<V> b) {
  return AddQuarterTurn < dir == Direction::Forward ? Direction::Inverse
                                                    : Direction::Forward > (a, b);
}
/// a - i s b forward, a + i s b inverse.
template <Direction dir, class V>
KERNELS_INLINE Complex<V> AddQuarterTurn(Complex<V> a, Complex<V> b, V s) {
  if constexpr (dir == Direction::Forward)
    return {MulAdd(b.im, s, a.re), NegMulAdd(b.re, s, a.im)};
  else
    return {NegMulAdd(b.im, s, a.re), MulAdd(b.re, s, a.im)};
}
template <Direction dir, class V>
KERNELS_INLINE Complex<V> SubQuarterTurn(Complex<V> a, Complex<V> b, V s) {
  return AddQuarterTurn < dir == Direction::Forward ? Direction::Inverse
                                                    : Direction::Forward > (a, b, s);
}

/// Complex values as they stand in memory, V::width / 2 of them.
template <class V>
struct Pairs {
  V v;
  static KERNELS_INLINE Pairs Load(const float* p) { return {V::Load(p)}; }
  static KERNELS_INLINE Pairs LoadU(const float* p) { return {V::LoadU(p)}; }
  KERNELS_INLINE void StoreU(float* p) const { v.StoreU(p); }
  friend KERNELS_INLINE Pairs operator+(Pairs a, Pairs b) { return {a.v + b.v}; }
  friend KERNELS_INLINE Pairs operator-(Pairs a, Pairs b) { return {a.v - b.v}; }
  friend KERNELS_INLINE Pairs operator*(Pairs a, V s) { return {a.v * s}; }
  friend KERNELS_INLINE Pairs operator*(Pairs a, Pairs b) {
    return {MulAddSub(a.v, DupEven(b.v), SwapPairs(a.v) * DupOdd(b.v))};
  }
};
template <class V>
KERNELS_INLINE Pairs<V> MulAdd(Pairs<V> a, V s, Pairs<V> c) {
  return {MulAdd(a.v, s, c.v)};
}
template <class V>
KERNELS_INLINE Pairs<V> NegMulAdd(Pairs<V> a, V s, Pairs<V> c) {
  return {NegMulAdd(a.v, s, c.v)};
}
template <Direction dir, class V>
KERNELS_INLINE Pairs<V> TimesTwiddle(Pairs<V> x, Pairs<V> w) {
  if constexpr (dir == Direction::Forward)
    return x * w;
  else
    return {MulSubAdd(x.v, DupEven(w.v), SwapPairs(x.v) * DupOdd(w.v))};
}
template <Direction dir, class V>
KERNELS_INLINE Pairs<V> AddQuarterTurn(Pairs<V> a, Pairs<V> b) {
  const V swapped = SwapPairs(b.v);
  if constexpr (dir == Direction::Forward)
    return {isFused<V> ? MulSubAdd(a.v, V::Set1(1.0f), swapped) : a.v + (swapped ^ SignOdd<V>())};
  else
    return {AddSub(a.v, swapped)};
}
template <Direction dir, class V>
KERNELS_INLINE Pairs<V> SubQuarterTurn(Pairs<V> a, Pairs<V> b) {
  return AddQuarterTurn < dir == Direction::Forward ? Direction::Inverse
                                                    : Direction::Forward > (a, b);
}
template <Direction dir, class V>
KERNELS_INLINE Pairs<V> AddQuarterTurn(Pairs<V> a, Pairs<V> b, V s) {
  if constexpr (!isFused<V>)
    return AddQuarterTurn<dir>(a, b * s);
  else if constexpr (dir == Direction::Forward)
    return {MulAdd(SwapPairs(b.v), s ^ SignOdd<V>(), a.v)};
  else
    return {MulAdd(SwapPairs(b.v), s ^ SignEven<V>(), a.v)};
}
template <Direction dir, class V>
KERNELS_INLINE Pairs<V> SubQuarterTurn(Pairs<V> a, Pairs<V> b, V s) {
  return AddQuarterTurn < dir == Direction::Forward ? Direction::Inverse
                                                    : Direction::Forward > (a, b, s);
}

template <class C>
struct FormTraits;
template <class V>
struct FormTraits<Complex<V>> {
  using Vector = V;
  static constexpr int count = V::width;
};
template <>
struct FormTraits<Complex<float>> {
  using Vector = float;
  static constexpr int count = 1;
};
template <class V>
struct FormTraits<Pairs<V>> {
  using Vector = V;
  static constexpr int count = V::width / 2;
};
/// Complex values in one C.
template <class C>
inline constexpr int countOf = FormTraits<C>::count;

template <class C>
KERNELS_INLINE C Scaled(C a, float x) {
  return a * Broadcast<typename FormTraits<C>::Vector>(x);
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
KERNELS_INLINE Complex<V> QuarterTurn(Complex<V> x) {
  if constexpr (dir == Direction::Forward)
    return {x.im, Negated(x.re)};
  else
    return {Negated(x.im), x.re};
}
template <Direction dir, class V>
KERNELS_INLINE Pairs<V> QuarterTurn(Pairs<V> x) {
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

template <class V>
KERNELS_INLINE Complex<V> InRegister(Complex<V> x) {
  Hold(x.re);
  Hold(x.im);
  return x;
}
template <class V>
KERNELS_INLINE Pairs<V> InRegister(Pairs<V> x) {
  Hold(x.v);
  return x;
}

/// A factor that is read for several products. With the wide registers' three operands it is
/// loaded once; with two, a copy of it would cost as much as the second load. Pairs duplicate each
/// half of it, which the duplicating instructions do as they load.
template <class V>
KERNELS_INLINE Complex<V> LoadedOnce(Complex<V> w) {
  if constexpr (V::width > 4)
    return InRegister(w);
  else
    return w;
}
template <class V>
KERNELS_INLINE Pairs<V> LoadedOnce(Pairs<V> w) {
  return w;
}

/// Interleaves a group that is in column order; pairs are interleaved already.
template <class V>
KERNELS_INLINE void StoreColumns(Complex<V> x, float* p) {
  StoreColumns(x.re, x.im, p);
}
template <class V>
KERNELS_INLINE void StoreColumns(Pairs<V> x, float* p) {
  x.StoreU(p);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
