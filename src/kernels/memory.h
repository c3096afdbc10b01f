#pragma once

#include "kernels/ipps.h"

#include <cstddef>
#include <cstdint>

namespace Orvik::Tesmo::Kernels {

/// What every block of the library and every table inside it is aligned to.
constexpr std::size_t tableAlignment = 32;

/// Of the tables and work buffers of an FFT, for registers of so many floats.
constexpr int AlignmentOf(int vecWidth) {
  return vecWidth == 16 ? 64 : 32;
}

template <class T>
constexpr T AlignUp(T bytes, std::size_t alignment = tableAlignment) {
  return (bytes + static_cast<T>(alignment - 1)) & ~static_cast<T>(alignment - 1);
}
inline Ipp8u* AlignUp(Ipp8u* p, std::size_t alignment = tableAlignment) {
  return p + (-reinterpret_cast<std::uintptr_t>(p) & (alignment - 1));
}
inline bool IsAligned(const void* p, std::size_t bytes) {
  return (reinterpret_cast<std::uintptr_t>(p) & (bytes - 1)) == 0;
}

}  // namespace Orvik::Tesmo::Kernels
