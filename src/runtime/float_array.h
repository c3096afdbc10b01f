#pragma once

// Arrays of floats for the audio path.

#include <cstddef>
#include <memory>
#include <new>

namespace Orvik::Tesmo {

struct FloatArrayDeleter {
  static constexpr std::align_val_t Alignment{64};  // a cache line, and more than any vector load
  void operator()(float* floats) const noexcept { ::operator delete[](floats, Alignment); }
};

using FloatArray = std::unique_ptr<float[], FloatArrayDeleter>;

/// `length` zeros. Every page is written here, so none is first touched on the audio thread. Throws
/// std::bad_alloc.
inline FloatArray MakeFloatArray(std::size_t length) {
  return FloatArray(new (FloatArrayDeleter::Alignment) float[length]());
}

}  // namespace Orvik::Tesmo
