// Relative L2 error of every build and of FFTW in single precision, against a double transform:
// random input, orders 4 to 20, the mean of several runs. Prints a table.

#include "kernels/build.h"
#include "kernels/ipps.h"

#include <fftw3.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

using namespace Orvik::Tesmo::Kernels;

namespace {

using Complex = std::complex<double>;

/// exp(-2 pi i n k / N) summed the recursive way, in double.
void Reference(std::vector<Complex>& x) {
  const std::size_t N = x.size();
  for (std::size_t i = 1, j = 0; i < N; ++i) {
    std::size_t bit = N >> 1;
    for (; (j & bit) != 0; bit >>= 1)
      j ^= bit;
    j |= bit;
    if (i < j) std::swap(x[i], x[j]);
  }
  for (std::size_t span = 1; span < N; span *= 2)
    for (std::size_t j = 0; j < span; ++j) {
      const Complex w = std::polar(1.0, -M_PI * static_cast<double>(j) / static_cast<double>(span));
      for (std::size_t at = j; at < N; at += 2 * span) {
        const Complex t = w * x[at + span];
        x[at + span] = x[at] - t;
        x[at] += t;
      }
    }
}

struct Errors {
  double forward = 0, inverse = 0, roundTrip = 0;
};

double Relative(const std::vector<float>& got, const std::vector<double>& expected,
                std::size_t count) {
  double error = 0, norm = 0;
  for (std::size_t i = 0; i < count; ++i) {
    error += std::pow(got[i] - expected[i], 2);
    norm += std::pow(expected[i], 2);
  }
  return std::sqrt(error / norm);
}

/// forward(src, dst) and inverse(src, dst), unscaled.
template <class Forward, class Inverse>
Errors Measure(int order, int runs, Forward forward, Inverse inverse) {
  const std::size_t N = std::size_t{1} << order;
  Errors mean;
  std::vector<float> x(N), X(N + 2), y(N);
  std::vector<double> expected(N + 2), samples(N);
  std::vector<Complex> z(N);
  for (int run = 0; run < runs; ++run) {
    std::mt19937 engine(static_cast<unsigned>(100 * order + run));
    std::normal_distribution<float> normal;
    for (std::size_t i = 0; i < N; ++i)
      z[i] = samples[i] = x[i] = normal(engine);
    Reference(z);
    for (std::size_t k = 0; k <= N / 2; ++k) {
      expected[2 * k] = z[k].real();
      expected[2 * k + 1] = z[k].imag();
    }
    forward(x.data(), X.data());
    mean.forward += Relative(X, expected, N + 2) / runs;
    // The inverse of the rounded spectrum, as conj of the forward transform of its conj.
    for (std::size_t k = 0; k < N; ++k)
      z[k] = k <= N / 2 ? Complex(X[2 * k], -X[2 * k + 1])
                        : Complex(X[2 * (N - k)], X[2 * (N - k) + 1]);
    Reference(z);
    for (std::size_t i = 0; i < N; ++i)
      expected[i] = z[i].real();
    inverse(X.data(), y.data());
    mean.inverse += Relative(y, expected, N) / runs;
    for (float& v : y)
      v /= static_cast<float>(N);
    mean.roundTrip += Relative(y, samples, N) / runs;
  }
  return mean;
}

void Print(int order, const char* name, const Errors& e, const Errors& fftw) {
  std::printf("%5d  %-6s %9.2e %5.2f  %9.2e %5.2f  %9.2e %5.2f\n", order, name, e.forward,
              e.forward / fftw.forward, e.inverse, e.inverse / fftw.inverse, e.roundTrip,
              e.roundTrip / fftw.roundTrip);
}

}  // namespace

int main() {
  std::printf("order  build    forward /FFTW    inverse /FFTW  roundtrip /FFTW\n");
  for (int order = 4; order <= 20; ++order) {
    const int N = 1 << order, runs = order < 12 ? 200 : order < 16 ? 20 : 3;
    auto* real = fftwf_alloc_real(static_cast<std::size_t>(N));
    auto* complex = fftwf_alloc_complex(static_cast<std::size_t>(N) / 2 + 1);
    const fftwf_plan forward = fftwf_plan_dft_r2c_1d(N, real, complex, FFTW_ESTIMATE);
    const fftwf_plan inverse = fftwf_plan_dft_c2r_1d(N, complex, real, FFTW_ESTIMATE);
    const std::size_t samples = sizeof(float) * static_cast<std::size_t>(N),
                      bins = samples + 2 * sizeof(float);
    const Errors fftw = Measure(
        order, runs,
        [&](const float* x, float* X) {
          std::memcpy(real, x, samples);
          fftwf_execute(forward);
          std::memcpy(static_cast<void*>(X), complex, bins);
        },
        [&](const float* X, float* x) {
          std::memcpy(static_cast<void*>(complex), X, bins);
          fftwf_execute(inverse);
          std::memcpy(x, real, samples);
        });
    Print(order, "FFTW", fftw, fftw);
    for (const Build* build : builds) {
      if (!RunsHere(*build)) continue;
      ippVariantIndex = build->index;
      IppsFFTSpec_R_32f* spec = nullptr;
      if (ippsFFTInitAlloc_R_32f(&spec, order, IPP_FFT_NODIV_BY_ANY, ippAlgHintNone) != ippStsNoErr)
        return 1;
      Print(order, build->name,
            Measure(
                order, runs,
                [&](const float* x, float* X) { ippsFFTFwd_RToCCS_32f(x, X, spec, nullptr); },
                [&](const float* X, float* x) { ippsFFTInv_CCSToR_32f(X, x, spec, nullptr); }),
            fftw);
      ippsFFTFree_R_32f(spec);
    }
    fftwf_destroy_plan(forward);
    fftwf_destroy_plan(inverse);
    fftwf_free(real);
    fftwf_free(complex);
  }
}
