// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

#include <cstddef>
#include <pmmintrin.h>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

#define KERNELS_INLINE __attribute__((always_inline)) inline

/// Four floats in a 128-bit register, SSE3. All kernels compute with these operations, which Vec8
/// has too. A "lane" is a 128-bit part of a register: one here, two in Vec8.
struct Vec4 {
  static constexpr int width = 4;  ///< floats
  static constexpr int lanes = 1;  ///< 128-bit lanes
  __m128 v;

  static KERNELS_INLINE Vec4 Load(const float* p) { return {_mm_load_ps(p)}; }
  static KERNELS_INLINE Vec4 LoadU(const float* p) { return {_mm_loadu_ps(p)}; }
  KERNELS_INLINE void Store(float* p) const { _mm_store_ps(p, v); }
  KERNELS_INLINE void StoreU(float* p) const { _mm_storeu_ps(p, v); }
  static KERNELS_INLINE Vec4 Zero() { return {_mm_setzero_ps()}; }
  static KERNELS_INLINE Vec4 Set1(float x) { return {_mm_set1_ps(x)}; }
  /// Four floats in every lane.
  static KERNELS_INLINE Vec4 LoadQuad(const float* p) { return LoadU(p); }
  /// Lane l takes the four floats at p + l * laneStride.
  static KERNELS_INLINE Vec4 LoadLanes(const float* p, std::ptrdiff_t) { return LoadU(p); }
  KERNELS_INLINE void StoreLanes(float* p, std::ptrdiff_t) const { StoreU(p); }
  /// Two pairs of floats: at p and `stride` behind.
  static KERNELS_INLINE Vec4 GatherPairs(const float* p, std::ptrdiff_t stride) {
    const __m128d lo = _mm_load_sd(reinterpret_cast<const double*>(p));
    return {_mm_castpd_ps(_mm_loadh_pd(lo, reinterpret_cast<const double*>(p + stride)))};
  }

  friend KERNELS_INLINE Vec4 operator+(Vec4 a, Vec4 b) { return {_mm_add_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec4 operator-(Vec4 a, Vec4 b) { return {_mm_sub_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec4 operator*(Vec4 a, Vec4 b) { return {_mm_mul_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec4 operator^(Vec4 a, Vec4 b) { return {_mm_xor_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec4 operator|(Vec4 a, Vec4 b) { return {_mm_or_ps(a.v, b.v)}; }
};

KERNELS_INLINE Vec4 Sqrt(Vec4 a) {
  return {_mm_sqrt_ps(a.v)};
}
/// All bits of a float where a < b.
KERNELS_INLINE Vec4 Below(Vec4 a, Vec4 b) {
  return {_mm_cmplt_ps(a.v, b.v)};
}
KERNELS_INLINE bool AnySign(Vec4 a) {
  return _mm_movemask_ps(a.v) != 0;
}

/// Even floats a - b, odd floats a + b.
KERNELS_INLINE Vec4 AddSub(Vec4 a, Vec4 b) {
  return {_mm_addsub_ps(a.v, b.v)};
}
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

// Inside each lane.
KERNELS_INLINE Vec4 UnpackLo(Vec4 a, Vec4 b) {
  return {_mm_unpacklo_ps(a.v, b.v)};
}
KERNELS_INLINE Vec4 UnpackHi(Vec4 a, Vec4 b) {
  return {_mm_unpackhi_ps(a.v, b.v)};
}
KERNELS_INLINE Vec4 UnpackLoPairs(Vec4 a, Vec4 b) {
  return {_mm_movelh_ps(a.v, b.v)};
}
KERNELS_INLINE Vec4 UnpackHiPairs(Vec4 a, Vec4 b) {
  return {_mm_movehl_ps(b.v, a.v)};
}
KERNELS_INLINE Vec4 DupEven(Vec4 a) {
  return {_mm_moveldup_ps(a.v)};
}
KERNELS_INLINE Vec4 DupOdd(Vec4 a) {
  return {_mm_movehdup_ps(a.v)};
}
/// a0 a1 a2 a3 to a1 a0 a3 a2.
KERNELS_INLINE Vec4 SwapPairs(Vec4 a) {
  return {_mm_shuffle_ps(a.v, a.v, 0xB1)};
}
/// Four of 0 to 3, by lane: Shuffle<i, j, k, l>(a, b) is a[i] a[j] b[k] b[l].
template <int i, int j, int k, int l>
KERNELS_INLINE Vec4 Shuffle(Vec4 a, Vec4 b) {
  return {_mm_shuffle_ps(a.v, b.v, i | j << 2 | k << 4 | l << 6)};
}

/// Interleaved complex values, a * b.
template <class V>
KERNELS_INLINE V MulInterleaved(V a, V b) {
  return AddSub(a * DupEven(b), SwapPairs(a) * DupOdd(b));
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
  const Vec4 t = {_mm_move_ss(cur.v, next.v)};
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
  KERNELS_INLINE explicit BackwardPairs(float even, float odd)
      : before{_mm_setr_ps(even, odd, 0.0f, 0.0f)} {}
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

/// Keeps a value in its register. Without a third operand the compiler would rather load it again
/// for each product, and the load ports are what the passes wait for.
KERNELS_INLINE void Hold(Vec4& a) {
  asm("" : "+x"(a.v));
}
KERNELS_INLINE void Hold(Vec2& a) {
  asm("" : "+x"(a.v));
}
/// The compiler moves no load and no store across this.
KERNELS_INLINE void KeepOrder() {
  asm volatile("" : : : "memory");
}

/// The exact root of one float.
KERNELS_INLINE float Sqrt(float x) {
  return _mm_cvtss_f32(_mm_sqrt_ss(_mm_set_ss(x)));
}

/// For the time of a kernel: no exception traps, and at the end the thread's control bits are what
/// they were, with the flags raised meanwhile but for "invalid" and "divided by zero".
class QuietExceptions {
public:
  KERNELS_INLINE QuietExceptions() : control(_mm_getcsr()) {
    _mm_setcsr((control | masks) & ~flags);
  }
  KERNELS_INLINE ~QuietExceptions() { _mm_setcsr(control | (_mm_getcsr() & kept)); }
  QuietExceptions(const QuietExceptions&) = delete;
  QuietExceptions& operator=(const QuietExceptions&) = delete;

private:
  static constexpr unsigned masks = 0x1F80, flags = 0x3F, kept = 0x3A;
  const unsigned control;
};

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
