// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// Whole transforms of short lengths: straight-line kernels from 1 to 16 and, for the primes from 17
// to 47, sums over symmetric pairs. dst may be src.

#include "kernels/dft/plan.h"
#include "kernels/dft/real_stage.h"

#include <cstring>
#include <utility>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

// Unscaled results are multiplied by 1, which is exact: one kernel for both.

/// `turn`: 0 forward, 1 inverse. A forward transform of values whose real and imaginary parts are
/// swapped, before and after, is the inverse.
template <int N>
void ComplexKernel(const float* src, float* dst, float scale, int turn) {
  Complex<float> z[N];
  Unroll<N>([&](auto j) KERNELS_INLINE_LAMBDA {
    z[j] = {src[2 * j + turn], src[2 * j + 1 - turn]};
  });
  Butterfly<N, Direction::Forward>(z);
  Unroll<N>([&](auto j) KERNELS_INLINE_LAMBDA {
    dst[2 * j + turn] = z[j].re * scale;
    dst[2 * j + 1 - turn] = z[j].im * scale;
  });
}

/// Samples and packed order.
template <int N, Direction dir>
void RealKernel(const float* src, float* dst, float scale) {
  float x[N];
  Unroll<N>([&](auto j) KERNELS_INLINE_LAMBDA { x[j] = src[j]; });
  if constexpr (dir == Direction::Forward)
    RealForward<N>(x);
  else
    RealInverse<N>(x);
  Unroll<N>([&](auto j) KERNELS_INLINE_LAMBDA { dst[j] = x[j] * scale; });
}

/// By length - 1.
template <int... i>
struct DirectKernels {
  void (*complex[sizeof...(i)])(const float*, float*, float, int) = {ComplexKernel<i + 1>...};
  void (*forward[sizeof...(i)])(const float*, float*,
                                float) = {RealKernel<i + 1, Direction::Forward>...};
  void (*inverse[sizeof...(i)])(const float*, float*,
                                float) = {RealKernel<i + 1, Direction::Inverse>...};
  constexpr explicit DirectKernels(std::integer_sequence<int, i...>) {}
};
inline constexpr DirectKernels directKernels{std::make_integer_sequence<int, DirectKernelLimit>{}};

/// N interleaved values.
inline void RunDirectComplex(Direction dir, int N, const float* src, float* dst, float scale) {
  directKernels.complex[N - 1](src, dst, scale, dir == Direction::Forward ? 0 : 1);
}
inline void RunDirectReal(Direction dir, int N, const float* src, float* dst, float scale) {
  (dir == Direction::Forward ? directKernels.forward : directKernels.inverse)[N - 1](src, dst,
                                                                                     scale);
}

[[gnu::noinline]] inline void ComplexDirectSum(Direction dir, const float* src, float* dst, int n,
                                               const float* roots, float scale) {
  Pairs<Vec2> x[DirectSumLimit];
  for (int j = 0; j < n; ++j)
    x[j] = Pairs<Vec2>::LoadU(src + 2 * j);
  if (dir == Direction::Forward)
    GenericButterfly<Direction::Forward>(x, n, roots);
  else
    GenericButterfly<Direction::Inverse>(x, n, roots);
  for (int j = 0; j < n; ++j)
    Scaled(x[j], scale).StoreU(dst + 2 * j);
}

inline void CopyFloats(const float* src, float* dst, int n) {
  std::memcpy(dst, src, static_cast<std::size_t>(n) * sizeof(float));
}

/// Writes the spectrum at dst[0] and from dst[2] on; dst[1] is left to the caller.
inline void RealDirectSumForward(const float* src, float* dst, int n, const float* roots) {
  float x[DirectSumLimit];
  CopyFloats(src, x, n);
  GenericRealForward(x, n, roots);
  dst[0] = x[0];
  CopyFloats(x + 1, dst + 2, n - 1);
}
inline void RealDirectSumInverse(const float* src, float* dst, int n, const float* roots) {
  float x[DirectSumLimit];
  x[0] = src[0];
  CopyFloats(src + 2, x + 1, n - 1);
  GenericRealInverse(x, n, roots);
  CopyFloats(x, dst, n);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
