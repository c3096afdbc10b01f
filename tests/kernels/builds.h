#pragma once

#include "kernels/builds/limits.h"
#include "kernels/cpu.h"
#include "kernels/ipps.h"
#include "support/seed.h"

#include <cmath>
#include <complex>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <random>
#include <vector>
#include <xmmintrin.h>

namespace KernelTest {

using namespace Orvik::Tesmo::Kernels;

/// The variant indices that this processor can run, with their builds; KALVRIN_TEST_BUILD, an
/// index, leaves one of them.
struct BuildUnderTest {
  int index;
  const Limits& limits;
};
inline std::vector<BuildUnderTest> Builds() {
  constexpr struct {
    int index;
    BuildIndex build;
  } all[] = {{0, Sse3}, {2, Ssse3}, {3, Sse3b}, {4, Sse41}, {5, Avx}};
  std::vector<BuildUnderTest> builds;
  const char* chosen = std::getenv("KALVRIN_TEST_BUILD");  // NOLINT(concurrency-mt-unsafe)
  for (const auto& b : all)
    if ((b.index <= ippBestVariantIndex() || b.index == 3) && (!chosen || b.index == *chosen - '0'))
      builds.push_back({b.index, limitsOf[b.build]});
  return builds;
}

/// Selects a build for a scope and leaves entry 0 behind.
class Selected {
public:
  explicit Selected(const BuildUnderTest& build) { ippVariantIndex = build.index; }
  ~Selected() { ippVariantIndex = 0; }
  Selected(const Selected&) = delete;
  Selected& operator=(const Selected&) = delete;
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

/// Values at any byte offset from a 64-byte boundary, between guards that must stay as they are.
/// They go in and out as bytes: the address may be off the type's own grid.
template <class T>
class Guarded {
public:
  Guarded(std::size_t count, std::size_t byteOffset)
      : bytes(count * sizeof(T) + byteOffset + 3 * 64, guard), size(count * sizeof(T)) {
    auto address = reinterpret_cast<std::uintptr_t>(bytes.data());
    start = 64 + (-address & 63) + byteOffset;
  }
  Guarded(const std::vector<T>& values, std::size_t byteOffset)
      : Guarded(values.size(), byteOffset) {
    Set(values);
  }
  T* data() { return reinterpret_cast<T*>(bytes.data() + start); }
  void Set(const std::vector<T>& values) {
    std::memcpy(bytes.data() + start, values.data(), values.size() * sizeof(T));
  }
  std::vector<T> Values() const {
    std::vector<T> values(size / sizeof(T));
    std::memcpy(values.data(), bytes.data() + start, size);
    return values;
  }
  bool Intact() const {
    for (std::size_t i = 0; i < bytes.size(); ++i)
      if ((i < start || i >= start + size) && bytes[i] != guard) return false;
    return true;
  }

private:
  static constexpr unsigned char guard = 0xA5;
  std::vector<unsigned char> bytes;
  std::size_t size, start;
};

/// Byte offsets for a further pointer: as `offset` runs from 0 to 31, so does each of these.
inline std::size_t Scatter(std::size_t offset, std::size_t pointer) {
  return (offset * (2 * pointer + 5)) % 32;
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

/// The relative L2 error that single precision allows a transform of 2^order values.
inline double Tolerance(int order) {
  return 7e-8 * std::sqrt(order < 4 ? 4.0 : order);
}

}  // namespace KernelTest
