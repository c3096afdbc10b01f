#pragma once

#include "support/input.h"
#include "support/seed.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <random>
#include <vector>

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

inline std::vector<float> Noise(std::size_t count, std::uint64_t salt) {
  std::mt19937_64 engine(TestSupport::TestSeed() + salt);
  std::normal_distribution<float> normal;
  std::vector<float> x(count);
  for (float& v : x)
    v = normal(engine);
  return x;
}

/// Normal noise with denormals, zeros, and values whose products are denormal among it.
inline std::vector<float> Mixed(std::size_t count, std::uint64_t salt) {
  std::vector<float> values = Noise(count, salt);
  constexpr float scales[] = {1, 1e-40F, 1e-25F, 0, 1e-38F, 1, 1e-44F};
  for (std::size_t i = 0; i < count; ++i)
    values[i] *= scales[(i * (2 * salt + 1)) % std::size(scales)];
  return values;
}

/// ||a - b|| / ||b||, or ||a|| where b is 0.
template <class A, class B>
double RelativeError(const A& a, const B& b, std::size_t count) {
  double error = 0, norm = 0;
  for (std::size_t i = 0; i < count; ++i) {
    error += std::pow(static_cast<double>(a[i]) - static_cast<double>(b[i]), 2);
    norm += std::pow(static_cast<double>(b[i]), 2);
  }
  return std::sqrt(norm > 0 ? error / norm : error);
}

}  // namespace KernelTest
