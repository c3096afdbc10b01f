#pragma once

#include <memory>
#include <span>
#include <vector>

struct soxr;

namespace Orvik::Tesmo::Tool {

/// Converts interleaved audio from one sample rate to another, block by block. The filter's own
/// delay is taken out: frame 0 of the output belongs to frame 0 of the input.
class Resampler {
public:
  /// Rates in Hz. Throws Refusal where the pair of rates is impossible, std::bad_alloc.
  Resampler(double inputRateHz, double outputRateHz, unsigned channelCount);

  /// Takes `in`, whole frames, and appends to `out` the frames that can be computed now.
  void Process(std::span<const float> in, std::vector<float>& out);

  /// Appends the rest. Process must not be called after it.
  void Finish(std::vector<float>& out);

private:
  void Run(const float* in, std::size_t inFrames, std::vector<float>& out);

  struct Closer {
    void operator()(soxr* state) const;
  };
  std::unique_ptr<soxr, Closer> state;
  std::size_t channels;
};

}  // namespace Orvik::Tesmo::Tool
