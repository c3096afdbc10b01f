// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// GCC 12 takes what its own header leaves open for an oversight.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#endif

#include "kernels/x86_64/vec8.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// Sixteen floats in a 512-bit register, AVX-512 F and DQ: the operations of Vec4, four lanes wide.
/// One instruction takes any floats of two registers, so that nothing is left in column order. Not
/// all tables are aligned to a whole register: all moves may be unaligned.
struct Vec16 {
  static constexpr int width = 16;
  static constexpr int lanes = 4;
  using UpTo8 = Vec8;
  __m512 v;

  static KERNELS_INLINE Vec16 Load(const float* p) { return {_mm512_loadu_ps(p)}; }
  static KERNELS_INLINE Vec16 LoadU(const float* p) { return {_mm512_loadu_ps(p)}; }
  KERNELS_INLINE void Store(float* p) const { _mm512_storeu_ps(p, v); }
  KERNELS_INLINE void StoreU(float* p) const { _mm512_storeu_ps(p, v); }
  /// The first `count` floats, 1 to 15; behind them the first one again, so that no value beyond
  /// the end raises a flag.
  static KERNELS_INLINE Vec16 LoadFirst(const float* p, std::ptrdiff_t count) {
    return {_mm512_mask_loadu_ps(_mm512_set1_ps(*p), First(count), p)};
  }
  KERNELS_INLINE void StoreFirst(float* p, std::ptrdiff_t count) const {
    _mm512_mask_storeu_ps(p, First(count), v);
  }
  static KERNELS_INLINE Vec16 Zero() { return {_mm512_setzero_ps()}; }
  static KERNELS_INLINE Vec16 Set1(float x) { return {_mm512_set1_ps(x)}; }
  static KERNELS_INLINE Vec16 LoadQuad(const float* p) {
    return {_mm512_broadcast_f32x4(_mm_loadu_ps(p))};
  }
  static KERNELS_INLINE Vec16 LoadLanes(const float* p, std::ptrdiff_t laneStride) {
    const Vec8 low = Vec8::LoadLanes(p, laneStride);
    const Vec8 high = Vec8::LoadLanes(p + 2 * laneStride, laneStride);
    return {_mm512_insertf32x8(_mm512_castps256_ps512(low.v), high.v, 1)};
  }
  KERNELS_INLINE void StoreLanes(float* p, std::ptrdiff_t laneStride) const {
    Vec8{_mm512_castps512_ps256(v)}.StoreLanes(p, laneStride);
    Vec8{_mm512_extractf32x8_ps(v, 1)}.StoreLanes(p + 2 * laneStride, laneStride);
  }

  friend KERNELS_INLINE Vec16 operator+(Vec16 a, Vec16 b) { return {_mm512_add_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec16 operator-(Vec16 a, Vec16 b) { return {_mm512_sub_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec16 operator*(Vec16 a, Vec16 b) { return {_mm512_mul_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec16 operator^(Vec16 a, Vec16 b) { return {_mm512_xor_ps(a.v, b.v)}; }
  friend KERNELS_INLINE Vec16 operator|(Vec16 a, Vec16 b) { return {_mm512_or_ps(a.v, b.v)}; }

private:
  static KERNELS_INLINE __mmask16 First(std::ptrdiff_t count) {
    return static_cast<__mmask16>((1u << count) - 1);
  }
};

KERNELS_INLINE Vec16 Sqrt(Vec16 a) {
  return {_mm512_sqrt_ps(a.v)};
}
KERNELS_INLINE Vec16 Below(Vec16 a, Vec16 b) {
  return {_mm512_castsi512_ps(_mm512_movm_epi32(_mm512_cmp_ps_mask(a.v, b.v, _CMP_LT_OQ)))};
}
KERNELS_INLINE bool AnySign(Vec16 a) {
  return _mm512_movepi32_mask(_mm512_castps_si512(a.v)) != 0;
}

KERNELS_INLINE void Hold(Vec16& a) {
  asm("" : "+v"(a.v));
}

KERNELS_INLINE Vec16 AddSub(Vec16 a, Vec16 b) {
  return {_mm512_fmaddsub_ps(a.v, _mm512_set1_ps(1.0f), b.v)};
}

KERNELS_INLINE Vec16 UnpackLo(Vec16 a, Vec16 b) {
  return {_mm512_unpacklo_ps(a.v, b.v)};
}
KERNELS_INLINE Vec16 UnpackHi(Vec16 a, Vec16 b) {
  return {_mm512_unpackhi_ps(a.v, b.v)};
}
KERNELS_INLINE Vec16 UnpackLoPairs(Vec16 a, Vec16 b) {
  return {_mm512_castpd_ps(_mm512_unpacklo_pd(_mm512_castps_pd(a.v), _mm512_castps_pd(b.v)))};
}
KERNELS_INLINE Vec16 UnpackHiPairs(Vec16 a, Vec16 b) {
  return {_mm512_castpd_ps(_mm512_unpackhi_pd(_mm512_castps_pd(a.v), _mm512_castps_pd(b.v)))};
}
KERNELS_INLINE Vec16 DupEven(Vec16 a) {
  return {_mm512_moveldup_ps(a.v)};
}
KERNELS_INLINE Vec16 DupOdd(Vec16 a) {
  return {_mm512_movehdup_ps(a.v)};
}
KERNELS_INLINE Vec16 SwapPairs(Vec16 a) {
  return {_mm512_permute_ps(a.v, 0xB1)};
}
template <int i, int j, int k, int l>
KERNELS_INLINE Vec16 Shuffle(Vec16 a, Vec16 b) {
  return {_mm512_shuffle_ps(a.v, b.v, i | j << 2 | k << 4 | l << 6)};
}

/// Places of a, 0 to 15, and of b, 16 to 31: float i of the result stands at first + i / 2 * step
/// where i is even, at `toOdd` behind that where it is odd.
template <int first, int step, int toOdd>
KERNELS_INLINE Vec16 Pick(Vec16 a, Vec16 b) {
  alignas(64) static constexpr struct Places {
    int at[16]{};
    constexpr Places() {
      for (int i = 0; i < 16; ++i)
        at[i] = first + i / 2 * step + i % 2 * toOdd;
    }
  } places;
  return {_mm512_permutex2var_ps(a.v, _mm512_load_si512(places.at), b.v)};
}

KERNELS_INLINE void Interleave(Vec16 a, Vec16 b, Vec16& lo, Vec16& hi) {
  lo = Pick<0, 1, 16>(a, b);
  hi = Pick<8, 1, 16>(a, b);
}
KERNELS_INLINE void Deinterleave(Vec16 lo, Vec16 hi, Vec16& even, Vec16& odd) {
  even = Pick<0, 4, 2>(lo, hi);
  odd = Pick<1, 4, 2>(lo, hi);
}
KERNELS_INLINE Vec16 ReversePairs(Vec16 a) {
  return Pick<14, -2, 1>(a, a);
}
KERNELS_INLINE Vec16 Mirror(Vec16 cur, Vec16 next) {
  return Pick<16, -2, -1>(cur, next);
}
template <>
struct BackwardPairs<Vec16> {
  __m512i before;  ///< the value that the next store starts with is the last pair
  KERNELS_INLINE explicit BackwardPairs(float even, float odd)
      : before{_mm512_castps_si512(Pick<0, 0, 16>(Vec16::Set1(even), Vec16::Set1(odd)).v)} {}
  KERNELS_INLINE void Store(Vec16 even, Vec16 odd, float* p) {
    const __m512i high = _mm512_castps_si512(Pick<15, -1, 16>(even, odd).v);
    const __m512i low = _mm512_castps_si512(Pick<7, -1, 16>(even, odd).v);
    _mm512_storeu_si512(p, _mm512_alignr_epi64(high, before, 7));
    _mm512_storeu_si512(p + 16, _mm512_alignr_epi64(low, high, 7));
    before = low;
  }
};

// Values are in their order everywhere: "column order" is that order.
KERNELS_INLINE void LoadColumns(const float* p, Vec16& even, Vec16& odd) {
  Deinterleave(Vec16::LoadU(p), Vec16::LoadU(p + 16), even, odd);
}
KERNELS_INLINE void LoadColumnsReversed(const float* p, Vec16& even, Vec16& odd) {
  const Vec16 lo = Vec16::LoadU(p), hi = Vec16::LoadU(p + 16);
  even = Pick<30, -4, -2>(lo, hi);
  odd = Pick<31, -4, -2>(lo, hi);
}
KERNELS_INLINE void StoreColumns(Vec16 even, Vec16 odd, float* p) {
  Vec16 lo, hi;
  Interleave(even, odd, lo, hi);
  lo.StoreU(p);
  hi.StoreU(p + 16);
}
KERNELS_INLINE void StoreColumnsReversed(Vec16 even, Vec16 odd, float* p) {
  Pick<15, -1, 16>(even, odd).StoreU(p);
  Pick<7, -1, 16>(even, odd).StoreU(p + 16);
}
KERNELS_INLINE Vec16 MirrorColumns(Vec16 cur, Vec16 next) {
  return Mirror(cur, next);
}

/// Transposes the 4 x 4 lanes of four registers.
KERNELS_INLINE void TransposeQuads(Vec16& a, Vec16& b, Vec16& c, Vec16& d) {
  const __m512 ab0 = _mm512_shuffle_f32x4(a.v, b.v, 0x44);
  const __m512 ab1 = _mm512_shuffle_f32x4(a.v, b.v, 0xEE);
  const __m512 cd0 = _mm512_shuffle_f32x4(c.v, d.v, 0x44);
  const __m512 cd1 = _mm512_shuffle_f32x4(c.v, d.v, 0xEE);
  a.v = _mm512_shuffle_f32x4(ab0, cd0, 0x88);
  b.v = _mm512_shuffle_f32x4(ab0, cd0, 0xDD);
  c.v = _mm512_shuffle_f32x4(ab1, cd1, 0x88);
  d.v = _mm512_shuffle_f32x4(ab1, cd1, 0xDD);
}
KERNELS_INLINE void Transpose(Vec16 (&r)[16]) {
  for (int i = 0; i < 16; i += 4)
    TransposeLanes(r[i], r[i + 1], r[i + 2], r[i + 3]);
  // Lane l of register 4 i + j has rows 4 i to 4 i + 3 of column 4 l + j.
  for (int j = 0; j < 4; ++j)
    TransposeQuads(r[j], r[j + 4], r[j + 8], r[j + 12]);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
