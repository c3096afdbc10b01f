#pragma once

// Zero-filled arrays of floats, and the bound on their length.

#include "failure/exceptions.h"
#include "runtime/element_count.h"
#include "runtime/float_array.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace Orvik::Tesmo {

/// The most floats in one array of a stream: what a tensor of the model may have. Sizes beyond it
/// are taken for a mistake of the host and refused, so that no product of sizes overflows.
inline constexpr std::uint64_t MaxBufferFloats = Dnn::MaxElements;

/// Whether the product of `factors` is from 1 to MaxBufferFloats.
constexpr bool BufferFits(std::initializer_list<std::uint64_t> factors) {
  std::uint64_t length = 1;
  for (const std::uint64_t factor : factors) {
    if (factor == 0 || factor > MaxBufferFloats / length) return false;
    length *= factor;
  }
  return true;
}

using Buffer = FloatArray;

/// As many zeros as the product of `factors`. Throws ContractException when BufferFits says no,
/// std::bad_alloc.
inline Buffer MakeBuffer(std::initializer_list<std::uint64_t> factors) {
  if (!BufferFits(factors)) throw ContractException(RefusalReason::SizesOutOfRange);
  std::size_t length = 1;
  for (const std::uint64_t factor : factors)
    length *= factor;
  return MakeFloatArray(length);
}

}  // namespace Orvik::Tesmo
