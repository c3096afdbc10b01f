#include "hosting/full_band.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace Orvik::Tesmo::Hosting {
namespace {

/// By how many host frames the way to the model's rate and back lags behind the input at most: the
/// filters need frames ahead, and the two rates' frames fall together differently each time.
/// Measured with single frames over all the ways in which they can.
std::uint64_t MeasuredLag(double hostRateHz, double modelRateHz) {
  const double hostPerModel = std::max(hostRateHz / modelRateHz, 1.0);
  const auto fillingFrames = static_cast<std::uint64_t>(128 * hostPerModel);
  constexpr std::uint64_t phases = 16384;
  RateConverter toModel(hostRateHz, modelRateHz, 1);
  RateConverter toHost(modelRateHz, hostRateHz, 1);
  Frames in(1, 1);
  Frames between(1, toModel.MostFrames(1));
  Frames out(1, toHost.MostFrames(between.Length()));
  std::uint64_t taken = 0;
  std::uint64_t made = 0;
  std::uint64_t lag = 0;
  while (taken < fillingFrames + phases) {
    const std::size_t frames = toModel.Process(in.Channels(), 1, between.Channels());
    made += toHost.Process(between.Channels(), frames, out.Channels());
    lag = std::max(lag, ++taken - made);
  }
  return lag;
}

}  // namespace

FullBand::FullBand(double hostRateHz, double modelRateHz, std::size_t channelCount,
                   std::size_t mostFrames)
    : modelPerHost(modelRateHz / hostRateHz), hostPerModel(hostRateHz / modelRateHz),
      toModel(hostRateHz, modelRateHz, channelCount), toHost(modelRateHz, hostRateHz, channelCount),
      // one more, because the second converter may start at another phase than the measured one
      marginFrames(MeasuredLag(hostRateHz, modelRateHz) + 1),
      converted(channelCount, toHost.MostFrames(toModel.MostFrames(mostFrames))),
      convertedQueue(channelCount, marginFrames + mostFrames + converted.Length() + 2),
      recentGain(channelCount, std::bit_ceil(toModel.MostFrames(marginFrames + mostFrames) + 4)) {}

std::uint64_t FullBand::LatencyFrames(std::uint64_t modelLatency) const {
  const double exact = static_cast<double>(modelLatency) * hostPerModel;
  return static_cast<std::uint64_t>(std::ceil(exact - 1e-6)) + marginFrames;
}

/// Model frames of silence to put before the mix, so that their time and `modelLatency` together
/// are a whole number of host frames. The rates of audio have an exact answer below 1000; for any
/// other the nearest is within a thousandth of a frame.
std::uint64_t FullBand::PhaseFor(std::uint64_t modelLatency) const {
  constexpr std::uint64_t mostFrames = 1024;
  std::uint64_t best = 0;
  double least = 1;
  for (std::uint64_t phase = 0; phase < mostFrames && least > 1e-6; ++phase) {
    const double frames = static_cast<double>(modelLatency + phase) * hostPerModel;
    const double error = std::fabs(frames - std::round(frames));
    if (error >= least) continue;
    least = error;
    best = phase;
  }
  return best;
}

void FullBand::Begin(std::uint64_t modelLatency) {
  toModel.Reset();
  toHost.Reset();
  const std::uint64_t phase = PhaseFor(modelLatency);
  const std::uint64_t latency = LatencyFrames(modelLatency);
  // what comes out before the first frame of the mix is dropped
  recentGain.Clear();
  std::size_t dropped = 0;
  for (std::uint64_t left = phase; left > 0;) {
    const std::size_t n = std::min<std::size_t>(left, toModel.MostFrames(1));
    dropped += toHost.Process(recentGain.Channels(), n, converted.Channels());
    left -= n;
  }
  const auto known = static_cast<std::uint64_t>(
      std::llround(static_cast<double>(modelLatency + phase) * hostPerModel));
  convertedQueue.Clear();
  convertedQueue.PushSilence(latency + dropped - known);
  gainFrames = hostFrames = 0;
  firstPlace = static_cast<double>(modelLatency) - static_cast<double>(latency) * modelPerHost;
}

void FullBand::KeepGain(const float* const* gain, std::size_t modelFrames) {
  const std::uint64_t mask = recentGain.Length() - 1;
  for (std::size_t c = 0; c < recentGain.ChannelCount(); ++c)
    for (std::size_t i = 0; i < modelFrames; ++i)
      recentGain[c][(gainFrames + i) & mask] = gain[c][i];
  gainFrames += modelFrames;
}

/// The dry path at the gain of the same time, between the model's frames linearly.
void FullBand::AddDry(const float* const* delayed, float* const* output, std::size_t frames) {
  const std::uint64_t mask = recentGain.Length() - 1;
  for (std::size_t i = 0; i < frames; ++i) {
    const double place =
        std::max(static_cast<double>(hostFrames + i) * modelPerHost + firstPlace, 0.0);
    const auto frame = static_cast<std::uint64_t>(place);
    const auto share = static_cast<float>(place - static_cast<double>(frame));
    for (std::size_t c = 0; c < recentGain.ChannelCount(); ++c) {
      const float before = recentGain[c][frame & mask];
      const float after = recentGain[c][(frame + 1) & mask];
      output[c][i] += (before + share * (after - before)) * delayed[c][i];
    }
  }
  hostFrames += frames;
}

void FullBand::ToHost(float* const* mix, const float* const* dry, const float* const* gain,
                      std::size_t modelFrames, const float* const* delayed, float* const* output,
                      std::size_t frames) {
  KeepGain(gain, modelFrames);
  for (std::size_t c = 0; c < recentGain.ChannelCount(); ++c)
    for (std::size_t i = 0; i < modelFrames; ++i)
      mix[c][i] -= gain[c][i] * dry[c][i];
  const std::size_t made = toHost.Process(mix, modelFrames, converted.Channels());
  convertedQueue.Push(converted.Channels(), made);
  convertedQueue.Pop(output, frames);
  AddDry(delayed, output, frames);
}

}  // namespace Orvik::Tesmo::Hosting
