#include "runtime/element_count.h"

#include <algorithm>
#include <new>

namespace Orvik::Tesmo::Dnn {

namespace {

template <class Sizes>
std::uint64_t CheckedProduct(const Sizes& sizes) {
  if (std::find(sizes.begin(), sizes.end(), 0) != sizes.end()) return 0;
  std::uint64_t product = 1;
  for (auto size : sizes) {
    // a negative dimension is a huge count here
    if (static_cast<std::uint64_t>(size) > MaxElements / product) throw std::bad_alloc();
    product *= static_cast<std::uint64_t>(size);
  }
  return product;
}

}  // namespace

std::uint64_t ElementCount(std::initializer_list<std::uint64_t> sizes) {
  return CheckedProduct(sizes);
}

std::uint64_t ElementCount(const Platform::Shape& shape) {
  return CheckedProduct(shape);
}

}  // namespace Orvik::Tesmo::Dnn
