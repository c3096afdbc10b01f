#pragma once

#include <cstddef>
#include <memory>
#include <vector>

struct SRC_STATE_tag;

namespace Orvik::Tesmo::Hosting {

/// Converts from one sample rate to another, in calls of any length. Output frame 0 has the time of
/// input frame 0. A frame comes out as soon as the input that its filter needs has come in, so the
/// count of output frames depends on the count of input frames alone. Allocates nothing after
/// construction.
class RateConverter {
public:
  /// Rates in Hz, their ratio from 1/256 to 256. Throws std::runtime_error, std::bad_alloc.
  RateConverter(double inputRateHz, double outputRateHz, std::size_t channelCount);

  /// Converts `frames` frames. Returns the number of frames written to `output`, at most
  /// MostFrames(frames).
  std::size_t Process(const float* const* input, std::size_t frames, float* const* output);
  std::size_t MostFrames(std::size_t inputFrames) const;

  /// Back to the state after construction.
  void Reset();

private:
  struct Closer {
    void operator()(SRC_STATE_tag* owned) const;
  };
  double ratio;
  std::vector<std::unique_ptr<SRC_STATE_tag, Closer>> states;  // one per channel
};

}  // namespace Orvik::Tesmo::Hosting
