#pragma once

// How large a tensor or a buffer may be.

#include "platform/platform.h"

#include <cstdint>
#include <initializer_list>

namespace Orvik::Tesmo::Dnn {

/// The most elements of one tensor or buffer, 256 MiB of floats. The vector kernels take lengths of
/// 32 bits, and sizes beyond this come from absurd requests or metadata: they are refused before
/// memory is touched, not after the machine has filled up.
inline constexpr std::uint64_t MaxElements = std::uint64_t{1} << 26;

/// The product of `sizes`. Throws std::bad_alloc where it is above MaxElements.
std::uint64_t ElementCount(std::initializer_list<std::uint64_t> sizes);

/// The product of the dimensions, 1 for a scalar. Throws std::bad_alloc where it is above
/// MaxElements or a dimension is negative.
std::uint64_t ElementCount(const Platform::Shape& shape);

}  // namespace Orvik::Tesmo::Dnn
