#pragma once

// The chain around a model on spectra as one would write it from FFTW and plain loops: interleaved
// frames in, windows and their spectra, the model, classes and remainder mixed by gains,
// overlap-add, interleaved frames out. Compiled once for each set of instructions, in a namespace
// of its own.

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

struct ChainSizes {
  std::size_t window, sequence, channels, classes;

  std::size_t Hop() const { return window / 2; }
  /// Floats of the windows of all channels, and of their packed spectra.
  std::size_t Samples() const { return channels * sequence * window; }
  std::size_t Spectra() const { return channels * sequence * (window + 2); }
};

struct ChainGains {
  float rest;
  std::vector<float> classes;
};

/// The model: `in` [channels, sequence, bins, 2], `out` [classes, channels, sequence, bins, 2].
using ChainModel = std::function<void(const float* in, float* out)>;

class PlainChain {
public:
  virtual ~PlainChain() = default;
  /// `input`, `output`: `sequence` hops of interleaved frames.
  virtual void Run(const float* input, float* output) = 0;
};

/// Takes 1, 2 or 6 channels. Plans with FFTW_PATIENT; transforms may destroy their input.
namespace PlainSse3 {
std::unique_ptr<PlainChain> Make(const ChainSizes& sizes, ChainGains gains, ChainModel model);
}
namespace PlainAvx {
std::unique_ptr<PlainChain> Make(const ChainSizes& sizes, ChainGains gains, ChainModel model);
}
