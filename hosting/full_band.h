#pragma once

#include "hosting/frames.h"
#include "hosting/rate_converter.h"

#include <cstdint>
#include <vector>

namespace Orvik::Tesmo::Hosting {

/// Puts the mix of a model that runs at another rate into the host's audio, so that the host keeps
/// its whole band. Only what the model changes is converted:
///
///   host rate   input --+--> [delay] --> x gain ----------------------> + --> output
///                       |                                               ^
///                   [convert]                                       [convert]
///                       |                                               ^
///   model rate          +--> [model] --> mix ---------------------> + --+
///                       |                                           ^ -
///                       +--> [delay] --> x gain --------------------+
///
///   output = gain x dry + convert(mix - gain x dry)
///
/// Below the lower rate's band the output is the mix, whatever `gain` is, because the gain's two
/// uses cancel. Above it the output is the dry path at `gain`. Where the mix is the dry path and
/// `gain` is 1, nothing is converted and the output is the delayed input. `gain` may be any smooth
/// course: it need not follow how the library fades from one class gain to another.
///
/// The two uses cancel only if the delays agree. The model's latency may be no whole number of host
/// frames, so the second converter starts at the phase that makes the sum a whole number.
///
/// All buffers are planar, one array per channel. One call at a time on one object; nothing
/// allocates or waits after construction.
class FullBand {
public:
  /// Rates in Hz. `mostFrames`: host frames of a call at most. Slow. Throws std::runtime_error,
  /// std::bad_alloc.
  FullBand(double hostRateHz, double modelRateHz, std::size_t channelCount, std::size_t mostFrames);

  /// Host frames from input to output, where the mix comes `modelLatency` model frames after its
  /// input: a whole number.
  std::uint64_t LatencyFrames(std::uint64_t modelLatency) const;
  /// Model frames that ToModel writes for `frames` host frames at most.
  std::size_t MostModelFrames(std::size_t frames) const { return toModel.MostFrames(frames); }

  /// Starts again from silence, for a model of that latency.
  void Begin(std::uint64_t modelLatency);

  /// Converts `frames` host frames of input; returns the number of model frames.
  std::size_t ToModel(const float* const* input, std::size_t frames, float* const* atModelRate) {
    return toModel.Process(input, frames, atModelRate);
  }

  /// The other half of the call, with as many model frames as ToModel returned. `mix`, `dry` and
  /// `gain` are at the model's rate and of the same time; `mix` is used as working memory.
  /// `delayed` is the input LatencyFrames ago. Writes `frames` host frames.
  void ToHost(float* const* mix, const float* const* dry, const float* const* gain,
              std::size_t modelFrames, const float* const* delayed, float* const* output,
              std::size_t frames);

private:
  std::uint64_t PhaseFor(std::uint64_t modelLatency) const;
  void KeepGain(const float* const* gain, std::size_t modelFrames);
  void AddDry(const float* const* delayed, float* const* output, std::size_t frames);

  double modelPerHost, hostPerModel;
  RateConverter toModel, toHost;
  std::uint64_t marginFrames;  // host frames by which the conversions may lag
  Frames converted;
  FrameQueue convertedQueue;
  Frames recentGain;  // of the last model frames; frame n is at n modulo the length, a power of 2
  std::uint64_t gainFrames = 0, hostFrames = 0;  // since Begin
  double firstPlace = 0;                         // model frame that plays with host frame 0
};

}  // namespace Orvik::Tesmo::Hosting
