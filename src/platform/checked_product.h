#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>

namespace Orvik::Tesmo {

/// The product of `sizes`, 1 of none; nothing where it is above `most`. A negative size counts as
/// the huge one that its bits are.
template <class Sizes>
constexpr std::optional<std::uint64_t> ProductUpTo(std::uint64_t most, const Sizes& sizes) {
  if (std::find(std::begin(sizes), std::end(sizes), 0) != std::end(sizes)) return 0;
  std::uint64_t product = 1;
  for (const auto size : sizes) {
    if (static_cast<std::uint64_t>(size) > most / product) return std::nullopt;
    product *= static_cast<std::uint64_t>(size);
  }
  return product;
}

}  // namespace Orvik::Tesmo
