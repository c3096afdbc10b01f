#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace TestSupport {

/// The seed for random cases of this program: KALVRIN_TEST_SEED from the environment, otherwise a
/// fresh one. Printed once, so that a failing run can be repeated.
inline std::uint64_t TestSeed() {
  static const std::uint64_t seed = [] {
    const char* given = std::getenv("KALVRIN_TEST_SEED");  // NOLINT(concurrency-mt-unsafe)
    const std::uint64_t value = given ? std::strtoull(given, nullptr, 10) : std::random_device{}();
    std::printf("KALVRIN_TEST_SEED=%llu\n", static_cast<unsigned long long>(value));
    return value;
  }();
  return seed;
}

}  // namespace TestSupport
