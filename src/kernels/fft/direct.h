// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
//
// Short transforms as straight-line code: everything about them is known to the compiler.
#pragma once

#include "kernels/complex.h"
#include "kernels/fft/passes.h"
#include "kernels/roots.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

// Real transforms of N values in packed order: X[0], X[N/2], Re X[1], Im X[1], ...

template <int N>
KERNELS_INLINE void SmallRealForward(const float* x, int stride, float* X) {
  if constexpr (N == 1) {
    X[0] = x[0];
  } else if constexpr (N == 2) {
    const float a = x[0], b = x[stride];
    X[0] = a + b;
    X[1] = a - b;
  } else {
    float e[N / 2], o[N / 2];
    SmallRealForward<N / 2>(x, 2 * stride, e);
    SmallRealForward<N / 2>(x + stride, 2 * stride, o);
    X[0] = e[0] + o[0];
    X[1] = e[0] - o[0];
    X[N / 2] = e[1];
    X[N / 2 + 1] = -o[1];
    for (int k = 1; k < N / 4; ++k) {
      const float* const w = twiddlesOf<N / 4, N>.data[0];
      const float c = w[k], s = -w[N / 4 + k];
      const float re = o[2 * k] * c + o[2 * k + 1] * s, im = o[2 * k + 1] * c - o[2 * k] * s;
      X[2 * k] = e[2 * k] + re;
      X[2 * k + 1] = e[2 * k + 1] + im;
      X[N - 2 * k] = e[2 * k] - re;
      X[N - 2 * k + 1] = im - e[2 * k + 1];
    }
  }
}

/// Unscaled.
template <int N>
KERNELS_INLINE void SmallRealInverse(const float* X, float* x, int stride) {
  if constexpr (N == 1) {
    x[0] = X[0];
  } else if constexpr (N == 2) {
    const float a = X[0], b = X[1];
    x[0] = a + b;
    x[stride] = a - b;
  } else {
    float e[N / 2], o[N / 2];
    e[0] = X[0] + X[1];
    o[0] = X[0] - X[1];
    e[1] = 2.0f * X[N / 2];
    o[1] = -2.0f * X[N / 2 + 1];
    for (int k = 1; k < N / 4; ++k) {
      const float* const w = twiddlesOf<N / 4, N>.data[0];
      const float c = w[k], s = -w[N / 4 + k];
      const float re = X[2 * k] - X[N - 2 * k], im = X[2 * k + 1] + X[N - 2 * k + 1];
      e[2 * k] = X[2 * k] + X[N - 2 * k];
      e[2 * k + 1] = X[2 * k + 1] - X[N - 2 * k + 1];
      o[2 * k] = re * c - im * s;
      o[2 * k + 1] = im * c + re * s;
    }
    SmallRealInverse<N / 2>(e, x, 2 * stride);
    SmallRealInverse<N / 2>(o, x + stride, 2 * stride);
  }
}

/// N samples to packed order; src may be dst.
template <int N>
void DirectRealForward(const float* src, float* dst, float scale) {
  float X[N];
  SmallRealForward<N>(src, 1, X);
  for (int i = 0; i < N; ++i)
    dst[i] = X[i] * scale;
}
/// CCS to N samples; src may be dst.
template <int N>
void DirectRealInverse(const float* src, float* dst, float scale) {
  float X[N], x[N];
  X[0] = src[0];
  for (int i = 2; i < N; ++i)
    X[i] = src[i];
  if constexpr (N > 1) X[1] = src[N];
  SmallRealInverse<N>(X, x, 1);
  for (int i = 0; i < N; ++i)
    dst[i] = x[i] * scale;
}

/// By order.
using DirectRealKernel = void (*)(const float* src, float* dst, float scale);
inline constexpr DirectRealKernel directRealForward[] = {DirectRealForward<1>, DirectRealForward<2>,
                                                         DirectRealForward<4>, DirectRealForward<8>,
                                                         DirectRealForward<16>};
inline constexpr DirectRealKernel directRealInverse[] = {DirectRealInverse<1>, DirectRealInverse<2>,
                                                         DirectRealInverse<4>, DirectRealInverse<8>,
                                                         DirectRealInverse<16>};

/// Complex transforms of up to 8 interleaved values.
template <Direction dir, int M>
void SmallComplex(const float* src, float* dst) {
  Complex<float> z[M];
  Unroll<M>([&](auto j) KERNELS_INLINE_LAMBDA { z[j] = {src[2 * j], src[2 * j + 1]}; });
  Butterfly<M, dir>(z);
  Unroll<M>([&](auto j) KERNELS_INLINE_LAMBDA {
    dst[2 * j] = z[j].re;
    dst[2 * j + 1] = z[j].im;
  });
}

/// Complex transforms of M = V::width * r values, r up to V::width: one radix-V::width butterfly
/// over rows of r neighbouring columns, a transposition, one radix-r butterfly. src may be dst. A
/// stage layout has groups of `group`.
template <Direction dir, Output output, class V, int group, int M>
void DirectComplex(const float* src, float* dst, float scale) {
  using C = Complex<V>;
  const V factor = V::Set1(scale);
  constexpr int first = V::width, second = M / first, columns = V::width / 2;
  C y[second];
  for (int c = 0; c < second; c += columns)
    TransformRows<dir>(src + 2 * c, 2 * second, y + c);
  for (int p = 1; p < second; ++p)
    y[p] = TimesTwiddle<dir>(y[p], C::Load(twiddlesOf<V::width, M>.data[p - 1]));
  if constexpr (second == 8)
    Butterfly8<dir>(y);
  else
    Butterfly<second, dir>(y);
  for (int k = 0; k < M; k += first) {
    const C& z = y[k / first];
    if constexpr (output != Output::Stage) {
      Put<output>(z, dst + 2 * k, factor);
    } else {
      float* at = dst + 2 * (k - k % group) + k % group;
      z.re.StoreU(at);
      z.im.StoreU(at + group);
    }
  }
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
