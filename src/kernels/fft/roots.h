#pragma once

// Roots of unity as compile-time constants.

#include <array>

namespace Orvik::Tesmo::Kernels {

constexpr double twoPi = 6.283185307179586;

/// sin or cos of x, 0 <= x <= pi/4, to double precision.
constexpr double Series(double x, bool sine) {
  double term = sine ? x : 1.0, sum = term;
  for (int n = sine ? 2 : 1; n < 24; n += 2) {
    term *= -x * x / (n * (n + 1));
    sum += term;
  }
  return sum;
}
/// sin(2 pi j / T) for j from 0 to T/4, T a multiple of 8.
constexpr double QuarterSine(int j, int T) {
  const int fromQuarter = T / 4 - j;
  return j <= T / 8 ? Series(j * twoPi / T, true) : Series(fromQuarter * twoPi / T, false);
}
/// sin(2 pi k / N) for any k from 0, N a power of two.
constexpr double SineOf(int k, int N) {
  const int T = 8 * N, at = 8 * k % T, quarter = T / 4, j = at % quarter;
  const double s = at / quarter % 2 == 0 ? QuarterSine(j, T) : QuarterSine(quarter - j, T);
  return at / quarter < 2 ? s : -s;
}
constexpr double CosineOf(int k, int N) {
  return SineOf(4 * k + N, 4 * N);
}

/// cos and sin of 2 pi k / N for k below N/2.
template <int N>
struct Roots {
  std::array<float, N / 2> cosine{}, sine{};
  constexpr Roots() {
    for (int k = 0; k < N / 2; ++k) {
      cosine[k] = static_cast<float>(CosineOf(k, N));
      sine[k] = static_cast<float>(SineOf(k, N));
    }
  }
};
template <int N>
inline constexpr Roots<N> roots{};

/// Row p - 1: width cosines and width negated sines of 2 pi j p / M, j from 0.
template <int width, int M>
struct DirectTwiddles {
  alignas(32) float data[M / width - 1][2 * width]{};
  constexpr DirectTwiddles() {
    for (int p = 1; p < M / width; ++p)
      for (int j = 0; j < width; ++j) {
        data[p - 1][j] = static_cast<float>(CosineOf(j * p, M));
        data[p - 1][width + j] = static_cast<float>(-SineOf(j * p, M));
      }
  }
};
template <int width, int M>
inline constexpr DirectTwiddles<width, M> directTwiddles{};

}  // namespace Orvik::Tesmo::Kernels
