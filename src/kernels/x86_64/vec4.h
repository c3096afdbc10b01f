// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

#include "kernels/inline.h"

#include <cstddef>
#include <pmmintrin.h>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// Four floats in a 128-bit register, SSE3. All kernels compute with these operations, which Vec8
/// has too. A "lane" is a 128-bit part of a register: one here, two in Vec8.
struct Vec4 {
  static constexpr int width = 4;  ///< floats
  static constexpr int lanes = 1;  ///< 128-bit lanes
  using UpTo8 = Vec4;              ///< the same, or eight floats where this is wider
  __m128 v;

  static KERNELS_INLINE Vec4 Load(const float* p) { return {_mm_load_ps(p)}; }
  static KERNELS_INLINE Vec4 LoadU(const float* p) { return {_mm_loadu_ps(p)}; }
  KERNELS_INLINE void Store(float* p) const { _mm_store_ps(p, v); }
  KERNELS_INLINE void StoreU(float* p) const { _mm_storeu_ps(p, v); }
  static KERNELS_INLINE Vec4 Zero() { return {_mm_setzero_ps()}; }
  static KERNELS_INLINE Vec4 Set1(float x) { return {_mm_set1_ps(x)}; }
  /// Two floats, then zeros.
  static KERNELS_INLINE Vec4 Pair(float a, float b) { return {_mm_setr_ps(a, b, 0.0f, 0.0f)}; }
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

/// The first of a, the others of b.
KERNELS_INLINE Vec4 FirstOf(Vec4 a, Vec4 b) {
  return {_mm_move_ss(b.v, a.v)};
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
  asm("" : "+v"(a.v));
}
KERNELS_INLINE void Hold(Vec2& a) {
  asm("" : "+v"(a.v));
}
/// The exact root of one float.
KERNELS_INLINE float Sqrt(float x) {
  return _mm_cvtss_f32(_mm_sqrt_ss(_mm_set_ss(x)));
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
