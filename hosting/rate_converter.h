#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Orvik::Tesmo::Hosting {

/// Converts from one sample rate to another, in calls of any length, by a windowed sinc: flat to
/// 83 % of the lower rate's band and 121 dB down where that ends, 46 frames of the lower rate
/// ahead. Output frame 0 has the time of input frame 0. A frame comes out as soon as the input that
/// its filter needs has come in, so the count of output frames depends on the count of input frames
/// alone. Allocates nothing after construction.
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
  const float* Coefficients();
  void MakePhases(double scale);

  // The rates as whole numbers without a common factor: output frame n is at input frame
  // n * inputRate / outputRate.
  std::uint64_t inputRate, outputRate;
  std::size_t halfTaps, taps;  // taps: 2 * halfTaps, filled up with zeros to whole lanes
  std::size_t phaseCount;      // filters in `phases`, for places that lie evenly in a frame
  std::vector<float> phases;
  std::vector<float> between;  // a filter for a place between two phases, where they are too few

  std::vector<std::vector<float>> recent;  // input by channel, from the first that is needed
  std::size_t filled = 0;                  // frames in `recent`
  std::size_t place = 0;                   // where the next output frame's filter begins
  std::uint64_t part = 0;                  // of a frame, in outputRate-ths, beyond that
};

}  // namespace Orvik::Tesmo::Hosting
