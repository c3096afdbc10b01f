// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

#include "kernels/memory.h"
#include "kernels/vec4.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// pDst[i] = op(i) for i in [0, len): op(Tag<V>, i) gives V::width results from i on,
/// op(Tag<float>, i) one. One by one to the destination's register boundary, then two registers a
/// turn with aligned stores, then the tail. A destination off the grid of floats cannot be peeled;
/// it runs unaligned.
template <class T>
struct Tag {};

template <class V, class Op>
KERNELS_INLINE void ForEachElement(float* pDst, std::ptrdiff_t len, Op op) {
  constexpr int block = 2 * V::width;
  std::ptrdiff_t i = 0;
  if (len > block) {
    const auto address = reinterpret_cast<std::uintptr_t>(pDst);
    const bool canAlign = address % sizeof(float) == 0;
    const std::ptrdiff_t peel = canAlign ? -(address / sizeof(float)) % V::width : 0;
    for (; i < peel; ++i)
      pDst[i] = op(Tag<float>{}, i);
    const std::ptrdiff_t last = len - block;
    for (; i <= last; i += block) {
      const V a = op(Tag<V>{}, i), b = op(Tag<V>{}, i + V::width);
      a.StoreU(pDst + i);
      b.StoreU(pDst + i + V::width);
    }
  }
  for (; i < len; ++i)
    pDst[i] = op(Tag<float>{}, i);
}

/// An operand of ForEachElement.
struct Source {
  const float* p;
  KERNELS_INLINE float At(Tag<float>, std::ptrdiff_t i) const { return p[i]; }
  template <class V>
  KERNELS_INLINE V At(Tag<V>, std::ptrdiff_t i) const {
    return V::LoadU(p + i);
  }
};
KERNELS_INLINE float Spread(Tag<float>, float x) {
  return x;
}
template <class V>
KERNELS_INLINE V Spread(Tag<V>, float x) {
  return V::Set1(x);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
