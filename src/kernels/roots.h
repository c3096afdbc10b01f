#pragma once

// Roots of unity: sines and cosines at compile time for kernels of fixed length, and a table of
// them for planners.

#include "kernels/ipps.h"

#include <cstdint>

namespace Orvik::Tesmo::Kernels {

constexpr double twoPi = 6.283185307179586;

/// cos(2 pi num / den), correct to double rounding: reduced to an eighth of a turn, then the
/// series.
constexpr double CosTurn(int num, int den) {
  num = ((num % den) + den) % den;
  if (2 * num > den) num = den - num;
  if (4 * num > den) return -CosTurn(den - 2 * num, 2 * den);
  const bool cosine = 8 * num <= den;
  const double angle = cosine ? twoPi * num / den : twoPi * (den - 4 * num) / (4.0 * den);
  double term = cosine ? 1.0 : angle;
  double sum = term;
  for (int i = cosine ? 1 : 2; i < 24; i += 2) {
    term *= -angle * angle / (i * (i + 1.0));
    sum += term;
  }
  return sum;
}
constexpr double SinTurn(int num, int den) {
  return CosTurn(4 * num - den, 4 * den);
}

/// Rounded, and compile-time constants wherever they stand.
template <int num, int den>
inline constexpr float cosOf = static_cast<float>(CosTurn(num, den));
template <int num, int den>
inline constexpr float sinOf = static_cast<float>(SinTurn(num, den));

/// Row p - 1: width cosines and width negated sines of 2 pi j p / M, j from 0.
template <int width, int M>
struct Twiddles {
  alignas(width == 16 ? 64 : 32) float data[M / width][2 * width]{};
  constexpr Twiddles() {
    for (int p = 1; p < M / width; ++p)
      for (int j = 0; j < width; ++j) {
        data[p - 1][j] = static_cast<float>(CosTurn(j * p, M));
        data[p - 1][width + j] = static_cast<float>(-SinTurn(j * p, M));
      }
  }
};
template <int width, int M>
inline constexpr Twiddles<width, M> twiddlesOf{};

/// All N roots exp(-2 pi i k / N), rounded. It keeps those of the first eighth of the turn (N a
/// multiple of 4), the first quarter (N even) or the first half, and mirrors the others, so that
/// symmetric roots are exactly symmetric. Sine and cosine are called for the ones that it keeps.
class RootTable {
public:
  /// Floats that a table of N fills.
  static constexpr std::int64_t Floats(std::int64_t N) {
    return 2 * (N / (N % 4 == 0 ? 8 : N % 2 == 0 ? 4 : 2) + 1);
  }
  /// Fills `memory`, which has to outlive the table.
  RootTable(float* memory, std::int64_t N);
  /// A table of N = 1024 that the library holds.
  RootTable();
  /// exp(-2 pi i num / den), num from 0; den divides N.
  Ipp32fc At(std::int64_t num, std::int64_t den) const;
  std::int64_t Size() const { return N; }

private:
  const float* kept;
  std::int64_t N;
};

}  // namespace Orvik::Tesmo::Kernels
