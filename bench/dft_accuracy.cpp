// Relative L2 error of every build and of FFTW, both in single precision, against the definition
// summed in double: random input, the mean of several runs. Prints a table with the ratio to FFTW.

#include "dft_lengths.h"

#include "kernels/build.h"
#include "kernels/ipps.h"

#include <fftw3.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <random>
#include <vector>

using namespace Orvik::Tesmo::Kernels;

namespace {

constexpr int runs = 5;

std::vector<double> Spectrum(const std::vector<float>& x) {
  const std::size_t N = x.size();
  std::vector<std::complex<double>> roots(N);
  for (std::size_t k = 0; k < N; ++k)
    roots[k] =
        std::polar(1.0, -2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(N));
  std::vector<double> spectrum;
  for (std::size_t k = 0; k <= N / 2; ++k) {
    std::complex<double> sum = 0;
    for (std::size_t n = 0, turn = 0; n < N; ++n) {
      sum += static_cast<double>(x[n]) * roots[turn];
      turn += k;
      if (turn >= N) turn -= N;
    }
    spectrum.insert(spectrum.end(), {sum.real(), sum.imag()});
  }
  return spectrum;
}

template <class Expected>
double Error(const std::vector<float>& got, const Expected& expected, double gain) {
  double error = 0, norm = 0;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const double e = gain * static_cast<double>(expected[i]);
    error += std::pow(static_cast<double>(got[i]) - e, 2);
    norm += e * e;
  }
  return std::sqrt(error / norm);
}

struct Case {
  std::vector<float> x, rounded;  ///< samples, and their spectrum in single precision
  std::vector<double> spectrum;
};

struct Errors {
  double forward = 0, inverse = 0;
};

/// forward(src, dst) and inverse(src, dst), unscaled. The inverse starts from the rounded spectrum,
/// whose own error is the same for everybody.
template <class Forward, class Inverse>
Errors Measure(const std::vector<Case>& cases, Forward forward, Inverse inverse) {
  Errors mean;
  for (const Case& c : cases) {
    std::vector<float> out(c.x.size() + 2);
    forward(c.x.data(), out.data());
    mean.forward += Error(out, c.spectrum, 1.0) / runs;
    inverse(c.rounded.data(), out.data());
    mean.inverse += Error(out, c.x, static_cast<double>(c.x.size())) / runs;
  }
  return mean;
}

Errors OfFftw(const std::vector<Case>& cases, int N) {
  std::vector<float> x(static_cast<std::size_t>(N)), X(static_cast<std::size_t>(N) + 2);
  auto* bins = reinterpret_cast<fftwf_complex*>(X.data());
  constexpr unsigned flags = FFTW_MEASURE | FFTW_UNALIGNED | FFTW_PRESERVE_INPUT;
  const fftwf_plan forward = fftwf_plan_dft_r2c_1d(N, x.data(), bins, flags);
  const fftwf_plan inverse = fftwf_plan_dft_c2r_1d(N, bins, x.data(), flags);
  const Errors errors = Measure(
      cases,
      [&](const float* src, float* dst) {
        fftwf_execute_dft_r2c(forward, const_cast<float*>(src),
                              reinterpret_cast<fftwf_complex*>(dst));
      },
      [&](const float* src, float* dst) {
        fftwf_execute_dft_c2r(inverse, reinterpret_cast<fftwf_complex*>(const_cast<float*>(src)),
                              dst);
      });
  fftwf_destroy_plan(forward);
  fftwf_destroy_plan(inverse);
  return errors;
}

Errors OfBuild(const std::vector<Case>& cases, int N, int variant) {
  ippVariantIndex = variant;
  IppsDFTSpec_R_32f* spec = nullptr;
  if (ippsDFTInitAlloc_R_32f(&spec, N, IPP_FFT_NODIV_BY_ANY, ippAlgHintNone) != ippStsNoErr)
    return {};
  const Errors errors = Measure(
      cases, [&](const float* src, float* dst) { ippsDFTFwd_RToCCS_32f(src, dst, spec, nullptr); },
      [&](const float* src, float* dst) { ippsDFTInv_CCSToR_32f(src, dst, spec, nullptr); });
  ippsDFTFree_R_32f(spec);
  return errors;
}

}  // namespace

int main() {
  std::printf("\nRelative L2 error, forward and inverse (ratio to FFTW)\n%8s %26s", "N", "FFTW");
  for (const Build* build : builds)
    if (RunsHere(*build)) std::printf(" %36s", build->name);
  std::printf("\n");
  for (const DftLengths& group : dftLengths)
    for (const int N : group.lengths) {
      if (N == 0) break;
      std::mt19937 engine(1);
      std::normal_distribution<float> normal;
      std::vector<Case> cases(runs);
      for (Case& c : cases) {
        c.x.resize(static_cast<std::size_t>(N));
        for (float& v : c.x)
          v = normal(engine);
        c.spectrum = Spectrum(c.x);
        c.rounded.assign(c.spectrum.begin(), c.spectrum.end());
      }
      const Errors fftw = OfFftw(cases, N);
      std::printf("%8d   %11.2e %11.2e", N, fftw.forward, fftw.inverse);
      for (const Build* build : builds) {
        if (!RunsHere(*build)) continue;
        const Errors ours = OfBuild(cases, N, build->index);
        std::printf("   %10.2e (%.2f) %10.2e (%.2f)", ours.forward, ours.forward / fftw.forward,
                    ours.inverse, ours.inverse / fftw.inverse);
      }
      std::printf("\n");
    }
}
