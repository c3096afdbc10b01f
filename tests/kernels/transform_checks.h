#pragma once

// Real transforms by their definition in double, and what holds of every length.

#include "kernels/builds.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace KernelTest {

/// exp(-2 pi i turn / N)
inline std::complex<double> Root(std::size_t turn, std::size_t N) {
  return std::polar(1.0,
                    -2 * std::numbers::pi * static_cast<double>(turn % N) / static_cast<double>(N));
}

class Definition {
public:
  explicit Definition(std::size_t length) : roots(length) {
    for (std::size_t k = 0; k < length; ++k)
      roots[k] = Root(k, length);
  }
  std::complex<double> Bin(const std::vector<float>& x, std::size_t k) const {
    std::complex<double> sum = 0;
    std::size_t turn = 0;
    for (const float sample : x) {
      sum += static_cast<double>(sample) * roots[turn];
      turn += k;
      if (turn >= roots.size()) turn -= roots.size();
    }
    return sum;
  }
  /// All bins times `scale`, real and imaginary parts in turn.
  std::vector<double> Spectrum(const std::vector<float>& x, double scale = 1) const {
    std::vector<double> spectrum;
    for (std::size_t k = 0; k <= x.size() / 2; ++k) {
      const std::complex<double> bin = scale * Bin(x, k);
      spectrum.insert(spectrum.end(), {bin.real(), bin.imag()});
    }
    return spectrum;
  }

private:
  std::vector<std::complex<double>> roots;
};

/// What the flags make of the definition and of its inverse without a factor.
struct FlagScales {
  int flag;
  double forward, inverse;
};
inline std::vector<FlagScales> AllFlags(std::size_t length) {
  const double byN = 1.0 / static_cast<double>(length), byRoot = std::sqrt(byN);
  return {{IPP_FFT_DIV_FWD_BY_N, byN, 1},
          {IPP_FFT_DIV_INV_BY_N, 1, byN},
          {IPP_FFT_DIV_BY_SQRTN, byRoot, byRoot},
          {IPP_FFT_NODIV_BY_ANY, 1, 1}};
}

/// The floats of a spectrum.
inline std::size_t SpectrumSize(std::size_t length) {
  return length % 2 == 0 ? length + 2 : length + 1;
}

/// The inverse gives the samples back within a relative L2 error of `tolerance`, the energies
/// agree, nothing is written behind the result, and one array for both sides gives the numbers of
/// two. Leaves the spectrum of x.
template <class Transform>
void CheckRoundTrip(Transform& transform, const std::vector<float>& x, std::vector<float>& spectrum,
                    double tolerance) {
  const std::size_t length = x.size(), size = SpectrumSize(length);
  const bool isEven = length % 2 == 0;
  spectrum.assign(size + 1, -99.0f);
  transform.Forward(x.data(), spectrum.data());
  ASSERT_EQ(spectrum[size], -99.0f);
  spectrum.pop_back();
  ASSERT_EQ(spectrum[1], 0.0f);
  ASSERT_EQ(isEven ? spectrum.back() : 0.0f, 0.0f);

  double time = 0, frequency = 0;
  for (const float v : x)
    time += std::pow(static_cast<double>(v), 2);
  for (std::size_t i = 0; i < size; ++i)
    frequency +=
        (i == 0 || (isEven && i == length) ? 1 : 2) * std::pow(static_cast<double>(spectrum[i]), 2);
  ASSERT_NEAR(frequency / static_cast<double>(length) / time, 1.0, 5e-7);

  std::vector<float> inPlace(length + 3, -99.0f);
  std::copy(x.begin(), x.end(), inPlace.begin());
  transform.Forward(inPlace.data(), inPlace.data());
  ASSERT_EQ(inPlace.back(), -99.0f);
  inPlace.resize(size);
  ASSERT_EQ(inPlace, spectrum);

  // the imaginary parts of X[0] and X[N/2] are not read
  inPlace[1] = NAN;
  if (isEven) inPlace[size - 1] = NAN;
  std::vector<float> back(length + 1, -99.0f);
  transform.Inverse(inPlace.data(), back.data());
  ASSERT_EQ(back.back(), -99.0f);
  back.pop_back();
  ASSERT_LT(RelativeError(back, x, length), tolerance);
  transform.Inverse(inPlace.data(), inPlace.data());
  inPlace.resize(length);
  ASSERT_EQ(inPlace, back);
}

}  // namespace KernelTest
