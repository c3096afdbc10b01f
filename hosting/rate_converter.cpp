#include "hosting/rate_converter.h"

#include <cmath>
#include <new>
#include <samplerate.h>
#include <stdexcept>
#include <string>

namespace Orvik::Tesmo::Hosting {
namespace {

// 121 dB below full scale, flat to 90 % of the lower rate's band, 46 frames of the lower rate
// ahead.
constexpr int quality = SRC_SINC_MEDIUM_QUALITY;

}  // namespace

void RateConverter::Closer::operator()(SRC_STATE_tag* owned) const {
  src_delete(owned);
}

RateConverter::RateConverter(double inputRateHz, double outputRateHz, std::size_t channelCount)
    : ratio(outputRateHz / inputRateHz) {
  if (!src_is_valid_ratio(ratio))
    throw std::runtime_error("cannot convert from " + std::to_string(inputRateHz) + " Hz to " +
                             std::to_string(outputRateHz) + " Hz");
  for (std::size_t c = 0; c < channelCount; ++c) {
    int error = 0;
    states.emplace_back(src_new(quality, 1, &error));
    if (!states.back()) throw std::bad_alloc();
  }
}

std::size_t RateConverter::MostFrames(std::size_t inputFrames) const {
  return static_cast<std::size_t>(std::ceil(static_cast<double>(inputFrames) * ratio)) + 2;
}

void RateConverter::Reset() {
  for (const auto& state : states)
    src_reset(state.get());
}

std::size_t RateConverter::Process(const float* const* input, std::size_t frames,
                                   float* const* output) {
  long made = 0;
  for (std::size_t c = 0; c < states.size(); ++c) {
    made = 0;
    // what it reads at once is bounded by its own buffer
    for (long used = 0, all = static_cast<long>(frames); used < all;) {
      SRC_DATA data{};
      data.data_in = input[c] + used;
      data.input_frames = all - used;
      data.data_out = output[c] + made;
      data.output_frames = static_cast<long>(MostFrames(frames)) - made;
      data.src_ratio = ratio;
      if (src_process(states[c].get(), &data) != 0 || data.input_frames_used == 0) break;
      used += data.input_frames_used;
      made += data.output_frames_gen;
    }
  }
  return static_cast<std::size_t>(made);
}

}  // namespace Orvik::Tesmo::Hosting
