// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

#include "kernels/vec4.h"

#include <immintrin.h>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// Eight floats in a 256-bit register, AVX: the operations of Vec4, two lanes wide.
struct Vec8 {
  static constexpr int width = 8;
  static constexpr int lanes = 2;
  using UpTo8 = Vec8;
  __m256 v;

  static KERNELS_INLINE Vec8 Load(const float* p) { return {_mm256_load_ps(p)}; }
  static KERNELS_INLINE Vec8 LoadU(const float* p) { return {_mm256_loadu_ps(p)}; }
  KERNELS_INLINE void Store(float* p) const { _mm256_store_ps(p, v); }
  KERNELS_INLINE void StoreU(float* p) const { _mm256_storeu_ps(p, v); }
  static KERNELS_INLINE Vec8 Zero() { return {_mm256_setzero_ps()}; }
  static KERNELS_INLINE Vec8 Set1(float x) { return {_mm256_set1_ps(x)}; }
  static KERNELS_INLINE Vec8 LoadQuad(const float* p) {
    return {_mm256_broadcast_ps(reinterpret_cast<const __m128*>(p))};
  }
  static KERNELS_INLINE Vec8 LoadLanes(const float* p, std::ptrdiff_t laneStride) {
    return Join(_mm_loadu_ps(p), _mm_loadu_ps(p + laneStride));
  }
  KERNELS_INLINE void StoreLanes(float* p, std::ptrdiff_t laneStride) const {
    _mm_storeu_ps(p, _mm256_castps256_ps128(v));
    _mm_storeu_ps(p + laneStride, _mm256_extractf128_ps(v, 1));
  }
  static KERNELS_INLINE Vec8 Join(__m128 lo, __m128 hi) {
    return {_mm256_insertf128_ps(_mm256_castps128_ps256(lo), hi, 1)};
  }

  friend KERNELS_INLINE Vec8 operator+(Vec8 a, Vec8 b) { return {_mm256_add_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec8 operator-(Vec8 a, Vec8 b) { return {_mm256_sub_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec8 operator*(Vec8 a, Vec8 b) { return {_mm256_mul_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec8 operator^(Vec8 a, Vec8 b) { return {_mm256_xor_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec8 operator|(Vec8 a, Vec8 b) { return {_mm256_or_ps(a.v, b.v)}; }
};

KERNELS_INLINE Vec8 Sqrt(Vec8 a) {
  return {_mm256_sqrt_ps(a.v)};
}
KERNELS_INLINE Vec8 Below(Vec8 a, Vec8 b) {
  return {_mm256_cmp_ps(a.v, b.v, _CMP_LT_OQ)};
}
KERNELS_INLINE bool AnySign(Vec8 a) {
  return _mm256_movemask_ps(a.v) != 0;
}

KERNELS_INLINE void Hold(Vec8& a) {
  asm("" : "+v"(a.v));
}

KERNELS_INLINE Vec8 AddSub(Vec8 a, Vec8 b) {
  return {_mm256_addsub_ps(a.v, b.v)};
}

KERNELS_INLINE Vec8 UnpackLo(Vec8 a, Vec8 b) {
  return {_mm256_unpacklo_ps(a.v, b.v)};
}
KERNELS_INLINE Vec8 UnpackHi(Vec8 a, Vec8 b) {
  return {_mm256_unpackhi_ps(a.v, b.v)};
}
KERNELS_INLINE Vec8 UnpackLoPairs(Vec8 a, Vec8 b) {
  return {_mm256_castpd_ps(_mm256_unpacklo_pd(_mm256_castps_pd(a.v), _mm256_castps_pd(b.v)))};
}
KERNELS_INLINE Vec8 UnpackHiPairs(Vec8 a, Vec8 b) {
  return {_mm256_castpd_ps(_mm256_unpackhi_pd(_mm256_castps_pd(a.v), _mm256_castps_pd(b.v)))};
}
KERNELS_INLINE Vec8 DupEven(Vec8 a) {
  return {_mm256_moveldup_ps(a.v)};
}
KERNELS_INLINE Vec8 DupOdd(Vec8 a) {
  return {_mm256_movehdup_ps(a.v)};
}
KERNELS_INLINE Vec8 SwapPairs(Vec8 a) {
  return {_mm256_permute_ps(a.v, 0xB1)};
}
template <int i, int j, int k, int l>
KERNELS_INLINE Vec8 Shuffle(Vec8 a, Vec8 b) {
  return {_mm256_shuffle_ps(a.v, b.v, i | j << 2 | k << 4 | l << 6)};
}

/// One lane of each.
KERNELS_INLINE Vec8 LowLanes(Vec8 a, Vec8 b) {
  return {_mm256_permute2f128_ps(a.v, b.v, 0x20)};
}
KERNELS_INLINE Vec8 HighLanes(Vec8 a, Vec8 b) {
  return {_mm256_permute2f128_ps(a.v, b.v, 0x31)};
}
KERNELS_INLINE Vec8 LowHighLanes(Vec8 a, Vec8 b) {
  return {_mm256_blend_ps(a.v, b.v, 0xF0)};
}
KERNELS_INLINE Vec8 HighLowLanes(Vec8 a, Vec8 b) {
  return {_mm256_permute2f128_ps(a.v, b.v, 0x21)};
}
KERNELS_INLINE Vec8 SwapLanes(Vec8 a) {
  return {_mm256_permute2f128_ps(a.v, a.v, 0x01)};
}

KERNELS_INLINE void Transpose(Vec8 (&r)[8]) {
  TransposeLanes(r[0], r[1], r[2], r[3]);
  TransposeLanes(r[4], r[5], r[6], r[7]);
  const Vec8 t[] = {r[0], r[1], r[2], r[3]};
  for (int i = 0; i < 4; ++i) {
    const Vec8 low = LowLanes(t[i], r[i + 4]), high = HighLanes(t[i], r[i + 4]);
    r[i] = low;
    r[i + 4] = high;
  }
}

KERNELS_INLINE void Interleave(Vec8 a, Vec8 b, Vec8& lo, Vec8& hi) {
  const Vec8 p = UnpackLo(a, b), q = UnpackHi(a, b);
  lo = LowLanes(p, q);
  hi = HighLanes(p, q);
}
KERNELS_INLINE void Deinterleave(Vec8 lo, Vec8 hi, Vec8& even, Vec8& odd) {
  const Vec8 p = LowLanes(lo, hi), q = HighLanes(lo, hi);
  even = Shuffle<0, 2, 0, 2>(p, q);
  odd = Shuffle<1, 3, 1, 3>(p, q);
}
KERNELS_INLINE Vec8 ReversePairs(Vec8 a) {
  const Vec8 s = SwapLanes(a);
  return Shuffle<2, 3, 0, 1>(s, s);
}

KERNELS_INLINE Vec8 Mirror(Vec8 cur, Vec8 next) {
  const __m256 t = _mm256_blend_ps(cur.v, next.v, 0x01);  // n0 c1 c2 c3 | c4 c5 c6 c7
  const __m256 u = _mm256_blend_ps(SwapLanes({t}).v, t, 0x11);
  return {_mm256_permute_ps(u, 0x6C)};  // (0, 3, 2, 1) of n0 c5 c6 c7 | c4 c1 c2 c3
}
template <>
struct BackwardPairs<Vec8> {
  Vec8 before;
  KERNELS_INLINE explicit BackwardPairs(float even, float odd)
      : before{_mm256_setr_ps(even, odd, 0, 0, 0, 0, 0, 0)} {}
  KERNELS_INLINE void Store(Vec8 even, Vec8 odd, float* p) {
    const Vec8 low = UnpackLo(even, odd), high = UnpackHi(even, odd);  // 0 1 | 4 5, 2 3 | 6 7
    const Vec8 a = LowHighLanes(before, high), b = HighLanes(high, low);
    const Vec8 c = HighLowLanes(low, high), d = LowLanes(high, low);
    Vec8{_mm256_blend_ps(a.v, b.v, 0xCC)}.StoreU(p);
    Vec8{_mm256_blend_ps(c.v, d.v, 0xCC)}.StoreU(p + 8);
    before = low;
  }
};
KERNELS_INLINE void LoadColumns(const float* p, Vec8& even, Vec8& odd) {
  const Vec8 lo = Vec8::LoadU(p), hi = Vec8::LoadU(p + 8);
  even = Shuffle<0, 2, 0, 2>(lo, hi);
  odd = Shuffle<1, 3, 1, 3>(lo, hi);
}
KERNELS_INLINE void LoadColumnsReversed(const float* p, Vec8& even, Vec8& odd) {
  const Vec8 lo = Vec8::LoadLanes(p + 4, -4), hi = Vec8::LoadLanes(p + 12, -4);
  even = Shuffle<2, 0, 2, 0>(hi, lo);
  odd = Shuffle<3, 1, 3, 1>(hi, lo);
}
KERNELS_INLINE Vec8 MirrorColumns(Vec8 cur, Vec8 next) {
  const __m256 t = _mm256_blend_ps(cur.v, SwapLanes(cur).v, 0xAA);  // c0 c3 c4 c7 | c2 c1 c6 c5
  const __m256 u = _mm256_blend_ps(t, next.v, 0x01);
  return {_mm256_permutevar_ps(u, _mm256_setr_epi32(0, 3, 2, 1, 2, 3, 0, 1))};
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
