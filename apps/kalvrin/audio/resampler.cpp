#include "audio/resampler.h"

#include "command_line/errors.h"

#include <cstring>
#include <new>
#include <soxr.h>
#include <string>

namespace Orvik::Tesmo::Tool {

void Resampler::Closer::operator()(soxr* owned) const {
  soxr_delete(owned);
}

Resampler::Resampler(double inputRateHz, double outputRateHz, unsigned channelCount)
    : channels(channelCount) {
  const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
  soxr_error_t error = nullptr;
  state.reset(
      soxr_create(inputRateHz, outputRateHz, channelCount, &error, nullptr, &quality, nullptr));
  if (error && std::strstr(error, "malloc")) throw std::bad_alloc();
  if (!state)
    throw Refusal("cannot convert from " + std::to_string(inputRateHz) + " Hz to " +
                  std::to_string(outputRateHz) + " Hz: " + (error ? error : "no reason given"));
}

void Resampler::Process(std::span<const float> in, std::vector<float>& out) {
  if (!in.empty()) Run(in.data(), in.size() / channels, out);
}

void Resampler::Finish(std::vector<float>& out) {
  Run(nullptr, 0, out);
}

void Resampler::Run(const float* in, std::size_t inFrames, std::vector<float>& out) {
  constexpr std::size_t outFramesAtOnce = 4096;
  for (;;) {
    const std::size_t begin = out.size();
    out.resize(begin + outFramesAtOnce * channels);
    std::size_t taken = 0;
    std::size_t given = 0;
    const soxr_error_t error = soxr_process(state.get(), in, inFrames, &taken, out.data() + begin,
                                            outFramesAtOnce, &given);
    out.resize(begin + given * channels);
    if (error) throw Refusal(std::string("the conversion of the sample rate failed: ") + error);
    if (in) in += taken * channels;
    inFrames -= taken;
    if (inFrames == 0 && given < outFramesAtOnce) return;
  }
}

}  // namespace Orvik::Tesmo::Tool
