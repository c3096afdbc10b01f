#pragma once

// Sines and cosines of rational turns at compile time, for kernels of fixed length.

namespace Orvik::Tesmo::Kernels {

/// cos(2 pi num / den), correct to double rounding: reduced to an eighth of a turn, then the
/// series.
constexpr double CosTurn(int num, int den) {
  num = ((num % den) + den) % den;
  if (2 * num > den) num = den - num;
  if (4 * num > den) return -CosTurn(den - 2 * num, 2 * den);
  const bool cosine = 8 * num <= den;
  const double angle =
      cosine ? 6.283185307179586 * num / den : 6.283185307179586 * (den - 4 * num) / (4.0 * den);
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

}  // namespace Orvik::Tesmo::Kernels
