// Compiled with PLAIN_CHAIN as the namespace of its set of instructions.

#include "plain_chain.h"

#include <fftw3.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <utility>

namespace PLAIN_CHAIN {

namespace {

struct FftwFree {
  void operator()(void* p) const { fftwf_free(p); }
};
using Floats = std::unique_ptr<float[], FftwFree>;
Floats Zeros(std::size_t count) {
  Floats floats(fftwf_alloc_real(count));
  std::memset(floats.get(), 0, count * sizeof(float));
  return floats;
}

/// Arrays by channel, then by window or frame. The number of channels is a constant for the sake of
/// the loops that (de)interleave.
template <std::size_t C>
class Chain final : public PlainChain {
public:
  Chain(const ChainSizes& sizes, ChainGains gains, ChainModel model)
      : N(sizes.window), hop(sizes.Hop()), S(sizes.sequence), K(sizes.classes),
        gains(std::move(gains)), model(std::move(model)), window(Zeros(N)),
        signal(Zeros(C * (S + 1) * hop)), windows(Zeros(C * S * N)), mixed(Zeros(C * S * N)),
        fromModel(Zeros(C * S * N)), sums(Zeros(C * (S + 1) * hop)),
        spectra(Zeros(sizes.Spectra())), modelOutput(Zeros(K * sizes.Spectra())) {
    for (std::size_t i = 0; i < N; ++i)
      window[i] = static_cast<float>(
          std::sin(std::numbers::pi * static_cast<double>(i) / static_cast<double>(N)));
    const int n = static_cast<int>(N), bins = n / 2 + 1, count = static_cast<int>(C * S);
    forward = fftwf_plan_many_dft_r2c(1, &n, count, windows.get(), nullptr, 1, n,
                                      reinterpret_cast<fftwf_complex*>(spectra.get()), nullptr, 1,
                                      bins, FFTW_PATIENT);
    inverse = fftwf_plan_many_dft_c2r(
        1, &n, count, reinterpret_cast<fftwf_complex*>(modelOutput.get()), nullptr, 1, bins,
        fromModel.get(), nullptr, 1, n, FFTW_PATIENT | FFTW_DESTROY_INPUT);
    std::memset(windows.get(), 0, C * S * N * sizeof(float));  // planning wrote over it
  }
  ~Chain() override {
    fftwf_destroy_plan(forward);
    fftwf_destroy_plan(inverse);
  }
  Chain(const Chain&) = delete;
  Chain& operator=(const Chain&) = delete;

  void Run(const float* __restrict input, float* __restrict output) override {
    CutWindows(input);
    fftwf_execute(forward);
    model(spectra.get(), modelOutput.get());
    const std::size_t samples = C * S * N;
    for (std::size_t i = 0; i < samples; ++i)
      mixed[i] = gains.rest * windows[i];
    for (std::size_t k = 0; k < K; ++k)
      AddClass(modelOutput.get() + k * C * S * (N + 2), gains.classes[k] - gains.rest);
    OverlapAdd(output);
  }

private:
  void CutWindows(const float* __restrict input) {
    for (std::size_t c = 0; c < C; ++c) {
      float* __restrict const x = signal.get() + c * (S + 1) * hop;
      std::memcpy(x, x + S * hop, hop * sizeof(float));
      for (std::size_t i = 0; i < S * hop; ++i)
        x[hop + i] = input[C * i + c];
      for (std::size_t s = 0; s < S; ++s) {
        const float* __restrict const from = x + s * hop;
        const float* __restrict const w = window.get();
        float* __restrict const to = windows.get() + (c * S + s) * N;
        for (std::size_t i = 0; i < N; ++i)
          to[i] = from[i] * w[i];
      }
    }
  }

  void AddClass(float* __restrict spectrum, float factor) {
    for (std::size_t i = 0; i < C * S; ++i)
      spectrum[i * (N + 2) + 1] = spectrum[(i + 1) * (N + 2) - 1] = 0.0f;
    const float scaled = factor / static_cast<float>(N);
    float* __restrict const y = mixed.get();
    float* __restrict const x = fromModel.get();
    fftwf_execute_dft_c2r(inverse, reinterpret_cast<fftwf_complex*>(spectrum), x);
    for (std::size_t i = 0; i < C * S * N; ++i)
      y[i] += scaled * x[i];
  }

  void OverlapAdd(float* __restrict output) {
    for (std::size_t c = 0; c < C; ++c) {
      float* __restrict const sum = sums.get() + c * (S + 1) * hop;
      const float* __restrict const w = window.get();
      for (std::size_t s = 0; s < S; ++s) {
        const float* __restrict const y = mixed.get() + (c * S + s) * N;
        float* __restrict const to = sum + s * hop;
        for (std::size_t i = 0; i < hop; ++i)
          to[i] += y[i] * w[i];
        for (std::size_t i = hop; i < N; ++i)
          to[i] = y[i] * w[i];
      }
      for (std::size_t i = 0; i < S * hop; ++i)
        output[C * i + c] = sum[i];
      std::memcpy(sum, sum + S * hop, hop * sizeof(float));
    }
  }

  std::size_t N, hop, S, K;
  ChainGains gains;
  ChainModel model;
  Floats window;
  Floats signal;     ///< by channel: the last hop, then the new ones
  Floats windows;    ///< cut from it and windowed; also the dry signal
  Floats mixed;      ///< windows that go out
  Floats fromModel;  ///< one class in samples, unscaled
  Floats sums;       ///< by channel: S hops that go out, then the one still to be added to
  Floats spectra, modelOutput;
  fftwf_plan forward, inverse;
};

}  // namespace

std::unique_ptr<PlainChain> Make(const ChainSizes& sizes, ChainGains gains, ChainModel model) {
  switch (sizes.channels) {
  case 1:
    return std::make_unique<Chain<1>>(sizes, std::move(gains), std::move(model));
  case 2:
    return std::make_unique<Chain<2>>(sizes, std::move(gains), std::move(model));
  case 6:
    return std::make_unique<Chain<6>>(sizes, std::move(gains), std::move(model));
  default:
    return nullptr;
  }
}

}  // namespace PLAIN_CHAIN
