#pragma once

#include <cstddef>
#include <memory>
#include <vector>

struct SRC_STATE_tag;

namespace Orvik::Tesmo::Plugin {

/// Converts from one sample rate to another, in calls of any length. Frame 0 out stands where frame
/// 0 in stood; a frame comes out as soon as the frames that its filter needs have come in, so how
/// many have come out depends on nothing but how many have gone in. Nothing is allocated after
/// construction.
class RateConverter {
public:
  /// Rates in Hz, their ratio from 1/256 to 256. Throws std::runtime_error, std::bad_alloc.
  RateConverter(double inputRateHz, double outputRateHz, std::size_t channelCount);

  /// Takes `frames` frames and gives the number of frames written to `output`, at most
  /// MostFrames(frames).
  std::size_t Process(const float* const* input, std::size_t frames, float* const* output);
  std::size_t MostFrames(std::size_t inputFrames) const;

  /// As if new.
  void Reset();

private:
  struct Closer {
    void operator()(SRC_STATE_tag* owned) const;
  };
  double ratio;
  std::vector<std::unique_ptr<SRC_STATE_tag, Closer>> states;  // one a channel
};

}  // namespace Orvik::Tesmo::Plugin
