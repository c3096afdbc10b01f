#pragma once

// Arrays of floats for the audio path, and how long they may be.

#include "failure/exceptions.h"
#include "platform/checked_product.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <new>

namespace Orvik::Tesmo {

/// The most floats in an array or an audio tensor: the vector kernels count in 32 bits, with a
/// sign.
inline constexpr std::uint64_t MaxFloats = 0x7FFFFFFF;

/// The product of `sizes`. Throws ContractException where it is 0 or above MaxFloats.
inline std::uint64_t FloatCount(std::initializer_list<std::uint64_t> sizes) {
  const auto count = ProductUpTo(MaxFloats, sizes);
  if (!count || *count == 0) throw ContractException(RefusalReason::SizesOutOfRange);
  return *count;
}

struct FloatArrayDeleter {
  static constexpr std::align_val_t Alignment{64};  // a cache line, and more than any vector load
  void operator()(float* floats) const noexcept { ::operator delete[](floats, Alignment); }
};

using FloatArray = std::unique_ptr<float[], FloatArrayDeleter>;

/// As many zeros as the product of `sizes`. Every page is written here, so none is first touched on
/// the audio thread. Throws as FloatCount, std::bad_alloc.
inline FloatArray MakeFloatArray(std::initializer_list<std::uint64_t> sizes) {
  const std::size_t length = FloatCount(sizes);
  return FloatArray(new (FloatArrayDeleter::Alignment) float[length]());
}

}  // namespace Orvik::Tesmo
