// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// Whole transforms of short lengths: straight-line kernels from 1 to 16 and, for the primes from 17
// to 47, sums over symmetric pairs. dst may be src.

#include "kernels/dft/plan.h"
#include "kernels/dft/real_stage.h"

#include <array>
#include <cstring>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD::Dft {

using DirectKernel = void (*)(const float* src, float* dst, float scale);

/// Complex for `real` false: N interleaved values. Real: samples and packed order.
template <int N, bool real, Direction dir, bool scaled>
void RunDirect(const float* src, float* dst, [[maybe_unused]] float scale) {
  constexpr int floats = real ? N : 2 * N;
  float x[floats];
  if constexpr (real) {
    Unroll<N>([&](auto j) KERNELS_INLINE_LAMBDA { x[j] = src[j]; });
    if constexpr (dir == Direction::Forward)
      RealForward<N>(x);
    else
      RealInverse<N>(x);
  } else {
    Complex<float> z[N];
    Unroll<N>([&](auto j) KERNELS_INLINE_LAMBDA { z[j] = {src[2 * j], src[2 * j + 1]}; });
    Butterfly<N, dir>(z);
    Unroll<N>([&](auto j) KERNELS_INLINE_LAMBDA { x[2 * j] = z[j].re, x[2 * j + 1] = z[j].im; });
  }
  Unroll<floats>([&](auto j) KERNELS_INLINE_LAMBDA { dst[j] = scaled ? x[j] * scale : x[j]; });
}

template <bool real, Direction dir, bool scaled>
inline constexpr auto directKernels = []<int... i>(std::integer_sequence<int, i...>) {
  return std::array<DirectKernel, sizeof...(i)>{RunDirect<i + 1, real, dir, scaled>...};
}
(std::make_integer_sequence<int, DirectKernelLimit>{});

/// `scale` null: unscaled.
template <bool real>
void RunDirectKernel(Direction dir, int length, const float* src, float* dst, const float* scale) {
  constexpr auto Fwd = Direction::Forward, Inv = Direction::Inverse;
  const auto& kernels =
      dir == Fwd ? scale ? directKernels<real, Fwd, true> : directKernels<real, Fwd, false>
      : scale ? directKernels<real, Inv, true>
                 : directKernels<real, Inv, false>;
  kernels[static_cast<std::size_t>(length) - 1](src, dst, scale ? *scale : 1.0f);
}
inline void DirectComplex(Direction dir, int length, const float* src, float* dst,
                          const float* scale) {
  RunDirectKernel<false>(dir, length, src, dst, scale);
}
inline void DirectReal(Direction dir, int length, const float* src, float* dst,
                       const float* scale) {
  RunDirectKernel<true>(dir, length, src, dst, scale);
}

inline void ComplexDirectSum(Direction dir, const float* src, float* dst, int n,
                             const float* roots) {
  Pairs<Vec2> x[DirectSumLimit];
  for (int j = 0; j < n; ++j)
    x[j] = Pairs<Vec2>::LoadU(src + 2 * j);
  if (dir == Direction::Forward)
    GenericButterfly<Direction::Forward>(x, n, roots);
  else
    GenericButterfly<Direction::Inverse>(x, n, roots);
  for (int j = 0; j < n; ++j)
    x[j].StoreU(dst + 2 * j);
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

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD::Dft
