#pragma once

#include "support/input.h"
#include "support/seed.h"

#include <array>
#include <random>

namespace KernelTest {

/// Choices at random, another row of them each time; KALVRIN_TEST_SEED repeats a program's.
class RandomInput {
public:
  Fuzz::Input Next() {
    for (std::uint8_t& byte : bytes)
      byte = static_cast<std::uint8_t>(engine());
    return {bytes.data(), bytes.size()};
  }

private:
  std::mt19937_64 engine{TestSupport::TestSeed()};
  std::array<std::uint8_t, 64> bytes;
};

}  // namespace KernelTest
