// Included by a build's .cpp, which names its namespace in KERNELS_BUILD, before the transforms.
//
// FMA: products with a sum in one step and with one rounding. Transforms and complex products are
// made of these; element-wise kernels add and multiply.
#pragma once

#include "kernels/complex.h"
#include "kernels/x86_64/vec8.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

#define FUSED_OPERATIONS(V, prefix)                                                                \
  KERNELS_INLINE V MulAdd(V a, V b, V c) {                                                         \
    return {prefix##_fmadd_ps(a.v, b.v, c.v)};                                                     \
  }                                                                                                \
  KERNELS_INLINE V NegMulAdd(V a, V b, V c) {                                                      \
    return {prefix##_fnmadd_ps(a.v, b.v, c.v)};                                                    \
  }                                                                                                \
  KERNELS_INLINE V MulAddSub(V a, V b, V c) {                                                      \
    return {prefix##_fmaddsub_ps(a.v, b.v, c.v)};                                                  \
  }                                                                                                \
  KERNELS_INLINE V MulSubAdd(V a, V b, V c) {                                                      \
    return {prefix##_fmsubadd_ps(a.v, b.v, c.v)};                                                  \
  }                                                                                                \
  template <>                                                                                      \
  inline constexpr bool isFused<V> = true;
FUSED_OPERATIONS(Vec2, _mm)
FUSED_OPERATIONS(Vec4, _mm)
FUSED_OPERATIONS(Vec8, _mm256)
#ifdef __AVX512F__
FUSED_OPERATIONS(Vec16, _mm512)
#endif
#undef FUSED_OPERATIONS

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
