// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

#include "kernels/memory.h"
#include "kernels/vec4.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// pDst[i] = op(p[i]...) for i in [0, len); op takes registers and floats alike. One by one to the
/// destination's register boundary, then blocks of two registers, two a turn, then the tail. A
/// destination off the grid of floats cannot be peeled; it runs unaligned.
template <class V, class Op, class... Source>
KERNELS_INLINE void ForEachElement(float* pDst, std::ptrdiff_t len, Op op, Source... p) {
  constexpr int block = 2 * V::width;
  std::ptrdiff_t i = 0;
  const auto store = [&]<int count>() {
    V result[count];
    for (int r = 0; r < count; ++r)
      result[r] = op(V::LoadU(p + i + r * V::width)...);
    for (int r = 0; r < count; ++r)
      result[r].StoreU(pDst + i + r * V::width);
  };
  if (len > block) {
    const auto address = reinterpret_cast<std::uintptr_t>(pDst);
    const bool canAlign = address % sizeof(float) == 0;
    const std::ptrdiff_t peel = canAlign ? -(address / sizeof(float)) % V::width : 0;
    for (; i < peel; ++i)
      pDst[i] = op(p[i]...);
    for (; i <= len - 2 * block; i += 2 * block)
      store.template operator()<4>();
    if (i <= len - block) {
      store.template operator()<2>();
      i += block;
    }
  }
  for (; i < len; ++i)
    pDst[i] = op(p[i]...);
}

/// x in every float.
KERNELS_INLINE float SpreadAs(float, float x) {
  return x;
}
template <class V>
KERNELS_INLINE V SpreadAs(V, float x) {
  return V::Set1(x);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
