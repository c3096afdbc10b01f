// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

#include "kernels/inline.h"

#include <arm_neon.h>
#include <cstddef>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

// The bits of a ^ b and a | b; -0 at the even floats.
KERNELS_INLINE float32x4_t XorBits(float32x4_t a, float32x4_t b) {
  return vreinterpretq_f32_u32(veorq_u32(vreinterpretq_u32_f32(a), vreinterpretq_u32_f32(b)));
}
KERNELS_INLINE float32x4_t OrBits(float32x4_t a, float32x4_t b) {
  return vreinterpretq_f32_u32(vorrq_u32(vreinterpretq_u32_f32(a), vreinterpretq_u32_f32(b)));
}
KERNELS_INLINE float32x4_t EvenSigns() {
  return vreinterpretq_f32_u64(vdupq_n_u64(0x80000000));
}

/// Four floats in a 128-bit register, NEON: one "lane".
struct Vec4 {
  static constexpr int width = 4;  ///< floats
  static constexpr int lanes = 1;  ///< 128-bit lanes
  using UpTo8 = Vec4;              ///< the same, or eight floats where this is wider
  float32x4_t v;

  static KERNELS_INLINE Vec4 Load(const float* p) { return {vld1q_f32(p)}; }
  static KERNELS_INLINE Vec4 LoadU(const float* p) { return {vld1q_f32(p)}; }
  KERNELS_INLINE void Store(float* p) const { vst1q_f32(p, v); }
  KERNELS_INLINE void StoreU(float* p) const { vst1q_f32(p, v); }
  static KERNELS_INLINE Vec4 Zero() { return {vdupq_n_f32(0)}; }
  static KERNELS_INLINE Vec4 Set1(float x) { return {vdupq_n_f32(x)}; }
  /// Two floats, then zeros.
  static KERNELS_INLINE Vec4 Pair(float a, float b) { return {float32x4_t{a, b, 0, 0}}; }
  /// Four floats in every lane.
  static KERNELS_INLINE Vec4 LoadQuad(const float* p) { return LoadU(p); }
  /// Lane l takes the four floats at p + l * laneStride.
  static KERNELS_INLINE Vec4 LoadLanes(const float* p, std::ptrdiff_t) { return LoadU(p); }
  KERNELS_INLINE void StoreLanes(float* p, std::ptrdiff_t) const { StoreU(p); }
  /// Two pairs of floats: at p and `stride` behind.
  static KERNELS_INLINE Vec4 GatherPairs(const float* p, std::ptrdiff_t stride) {
    return {vcombine_f32(vld1_f32(p), vld1_f32(p + stride))};
  }

  friend KERNELS_INLINE Vec4 operator+(Vec4 a, Vec4 b) { return {vaddq_f32(a.v, b.v)}; }
  friend KERNELS_INLINE Vec4 operator-(Vec4 a, Vec4 b) { return {vsubq_f32(a.v, b.v)}; }
  friend KERNELS_INLINE Vec4 operator*(Vec4 a, Vec4 b) { return {vmulq_f32(a.v, b.v)}; }
  friend KERNELS_INLINE Vec4 operator^(Vec4 a, Vec4 b) { return {XorBits(a.v, b.v)}; }
  friend KERNELS_INLINE Vec4 operator|(Vec4 a, Vec4 b) { return {OrBits(a.v, b.v)}; }
};

KERNELS_INLINE Vec4 Sqrt(Vec4 a) {
  return {vsqrtq_f32(a.v)};
}
/// All bits of a float where a < b.
KERNELS_INLINE Vec4 Below(Vec4 a, Vec4 b) {
  return {vreinterpretq_f32_u32(vcltq_f32(a.v, b.v))};
}
KERNELS_INLINE bool AnySign(Vec4 a) {
  return vmaxvq_u32(vreinterpretq_u32_f32(a.v)) >> 31 != 0;
}

/// Even floats a - b, odd floats a + b.
KERNELS_INLINE Vec4 AddSub(Vec4 a, Vec4 b) {
  return {vaddq_f32(a.v, XorBits(b.v, EvenSigns()))};
}

// Inside each lane.
KERNELS_INLINE Vec4 UnpackLo(Vec4 a, Vec4 b) {
  return {vzip1q_f32(a.v, b.v)};
}
KERNELS_INLINE Vec4 UnpackHi(Vec4 a, Vec4 b) {
  return {vzip2q_f32(a.v, b.v)};
}
KERNELS_INLINE Vec4 UnpackLoPairs(Vec4 a, Vec4 b) {
  return {
      vreinterpretq_f32_f64(vzip1q_f64(vreinterpretq_f64_f32(a.v), vreinterpretq_f64_f32(b.v)))};
}
KERNELS_INLINE Vec4 UnpackHiPairs(Vec4 a, Vec4 b) {
  return {
      vreinterpretq_f32_f64(vzip2q_f64(vreinterpretq_f64_f32(a.v), vreinterpretq_f64_f32(b.v)))};
}
KERNELS_INLINE Vec4 DupEven(Vec4 a) {
  return {vtrn1q_f32(a.v, a.v)};
}
KERNELS_INLINE Vec4 DupOdd(Vec4 a) {
  return {vtrn2q_f32(a.v, a.v)};
}
/// a0 a1 a2 a3 to a1 a0 a3 a2.
KERNELS_INLINE Vec4 SwapPairs(Vec4 a) {
  return {vrev64q_f32(a.v)};
}
/// Four of 0 to 3, by lane: Shuffle<i, j, k, l>(a, b) is a[i] a[j] b[k] b[l].
template <int i, int j, int k, int l>
KERNELS_INLINE Vec4 Shuffle(Vec4 a, Vec4 b) {
  return {__builtin_shufflevector(a.v, b.v, i, j, 4 + k, 4 + l)};
}
/// The first of a, the others of b.
KERNELS_INLINE Vec4 FirstOf(Vec4 a, Vec4 b) {
  return {vcopyq_laneq_f32(b.v, 0, a.v, 0)};
}

/// One complex value.
struct Vec2 {
  static constexpr int width = 2;
  float32x2_t v;

  static KERNELS_INLINE Vec2 LoadU(const float* p) { return {vld1_f32(p)}; }
  static KERNELS_INLINE Vec2 Load(const float* p) { return LoadU(p); }
  KERNELS_INLINE void StoreU(float* p) const { vst1_f32(p, v); }
  static KERNELS_INLINE Vec2 Set1(float x) { return {vdup_n_f32(x)}; }
  static KERNELS_INLINE Vec2 LoadQuad(const float* p) { return LoadU(p); }
  friend KERNELS_INLINE Vec2 operator+(Vec2 a, Vec2 b) { return {vadd_f32(a.v, b.v)}; }
  friend KERNELS_INLINE Vec2 operator-(Vec2 a, Vec2 b) { return {vsub_f32(a.v, b.v)}; }
  friend KERNELS_INLINE Vec2 operator*(Vec2 a, Vec2 b) { return {vmul_f32(a.v, b.v)}; }
  friend KERNELS_INLINE Vec2 operator^(Vec2 a, Vec2 b) {
    return {vreinterpret_f32_u32(veor_u32(vreinterpret_u32_f32(a.v), vreinterpret_u32_f32(b.v)))};
  }
};
KERNELS_INLINE Vec2 AddSub(Vec2 a, Vec2 b) {
  return a + (b ^ Vec2{vget_low_f32(EvenSigns())});
}
KERNELS_INLINE Vec2 SwapPairs(Vec2 a) {
  return {vrev64_f32(a.v)};
}
KERNELS_INLINE Vec2 DupEven(Vec2 a) {
  return {vdup_lane_f32(a.v, 0)};
}
KERNELS_INLINE Vec2 DupOdd(Vec2 a) {
  return {vdup_lane_f32(a.v, 1)};
}
KERNELS_INLINE Vec2 ReversePairs(Vec2 a) {
  return a;
}

/// Keeps a value in its register: see x86_64/vec4.h.
KERNELS_INLINE void Hold(Vec4& a) {
  asm("" : "+w"(a.v));
}
KERNELS_INLINE void Hold(Vec2& a) {
  asm("" : "+w"(a.v));
}

/// The exact root of one float.
KERNELS_INLINE float Sqrt(float x) {
  return vget_lane_f32(vsqrt_f32(vdup_n_f32(x)), 0);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
