#include "hosting/hosted_stream.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr double fadeSeconds = 0.01;
/// Louder than any audio, far from where sums overflow: 120 dB above full scale.
constexpr float loudest = 1e6F;

double CheckedRate(double rateHz) {
  if (rateHz >= HostedStream::lowestRateHz && rateHz <= HostedStream::highestRateHz) return rateHz;
  throw std::runtime_error("a sample rate of " + std::to_string(rateHz) +
                           " Hz is not from 8 to 192 kHz");
}

std::optional<RateConverter> ConverterFor(double from, double to, unsigned channelCount) {
  if (from == to) return std::nullopt;
  return std::optional<RateConverter>(std::in_place, from, to, channelCount);
}

/// How many frames the way there and back keeps the host waiting at most: a frame that has gone in
/// is short of what its filters need ahead, and the two rates' frames fall together differently
/// each time. Measured with single frames over all the ways in which they can.
std::uint32_t MeasuredCushion(RateConverter& toModel, RateConverter& toHost,
                              unsigned channelCount) {
  constexpr std::uint32_t fillingFrames = 16384, phases = 16384;
  Frames in(channelCount, 1);
  Frames between(channelCount, toModel.MostFrames(1));
  Frames out(channelCount, toHost.MostFrames(between.Length()));
  std::uint32_t taken = 0;
  std::uint32_t given = 0;
  std::uint32_t cushion = 0;
  while (taken < fillingFrames + phases) {
    const std::size_t frames = toModel.Process(in.Channels(), 1, between.Channels());
    given += static_cast<std::uint32_t>(toHost.Process(between.Channels(), frames, out.Channels()));
    cushion = std::max(cushion, ++taken - given);
  }
  toModel.Reset();
  toHost.Reset();
  return cushion + 1;  // for the rounding of the positions in the long run
}

/// In double, as the tool does: the same gain to the last bit.
float LinearGain(float db) {
  if (db <= lowestGainDb) return 0;
  return static_cast<float>(std::pow(10.0, std::min(db, highestGainDb) / 20.0));
}

/// Copies, with silence for what is no audio.
void CopyAudio(const float* from, float* to, std::uint32_t frames) {
  for (std::uint32_t i = 0; i < frames; ++i)
    to[i] = std::fabs(from[i]) <= loudest ? from[i] : 0.0F;
}

float Towards(float target, float value, float step) {
  return value < target ? std::min(target, value + step) : std::max(target, value - step);
}

}  // namespace

HostedStream::HostedStream(const Description& description, std::shared_ptr<const ModelBytes> bytes,
                           double rateHz, unsigned channelCount, std::uint32_t usualBlockFrames)
    : hostRateHz(CheckedRate(rateHz)),
      modelRateHz(description.sampleRateHz ? description.sampleRateHz : hostRateHz),
      hopLength(description.HopLength()), usualBlockFrames(usualBlockFrames),
      model(std::move(bytes)), stage(description, *model, channelCount),
      toModel(ConverterFor(hostRateHz, modelRateHz, channelCount)),
      toHost(ConverterFor(modelRateHz, hostRateHz, channelCount)),
      cushionFrames(toModel ? MeasuredCushion(*toModel, *toHost, channelCount) : 0),
      dry(channelCount, sliceFrames), wet(channelCount, sliceFrames),
      atModelRate(channelCount, toModel ? toModel->MostFrames(sliceFrames) : 0),
      fromModel(channelCount, atModelRate.Length()),
      converted(channelCount, toHost ? toHost->MostFrames(atModelRate.Length()) : 0),
      convertedQueue(channelCount, cushionFrames + sliceFrames + converted.Length() + 1),
      dryDelay(channelCount, RoundedLatency(Mode::Spread) + sliceFrames),
      fadeStep(static_cast<float>(1 / (fadeSeconds * hostRateHz))),
      gainsDb(description.classes.size() + 2) {
  Begin(Settle(ModeWish::Automatic, usualBlockFrames));
}

Mode HostedStream::Settle(ModeWish wish, std::uint32_t blockFrames) const {
  if (wish != ModeWish::Automatic) return wish == ModeWish::Direct ? Mode::Direct : Mode::Spread;
  if (automaticMode) return *automaticMode;
  const bool isShort =
      blockFrames != 0 && blockFrames * modelRateHz < static_cast<double>(hopLength) * hostRateHz;
  return isShort ? Mode::Spread : Mode::Direct;
}

double HostedStream::ExactLatency(Mode mode) const {
  return static_cast<double>(stage.LatencyFrames(mode)) * hostRateHz / modelRateHz + cushionFrames;
}

std::uint32_t HostedStream::RoundedLatency(Mode mode) const {
  return static_cast<std::uint32_t>(std::lround(ExactLatency(mode)));
}

std::uint32_t HostedStream::GetLatencyFrames(ModeWish wish) const {
  return RoundedLatency(hasBegun ? stage.GetMode() : Settle(wish, usualBlockFrames));
}

double HostedStream::GetLatencyRemainder() const {
  return ExactLatency(stage.GetMode()) - RoundedLatency(stage.GetMode());
}

/// Before the first frame: everything but the stage, which is silent, in place for `mode`.
void HostedStream::Begin(Mode mode) {
  stage.TrySwitch(mode);
  if (toModel) {
    toModel->Reset();
    toHost->Reset();
  }
  convertedQueue.Clear();
  convertedQueue.PushSilence(cushionFrames);
  dryDelay.Clear();
  dryDelay.PushSilence(RoundedLatency(mode));
  level = 1;
  isSwitching = false;
  mutedFrames = 0;
}

void HostedStream::Activate() {
  if (hasBegun) stage.Restart(Mode::Direct);
  hasBegun = false;
  automaticMode.reset();
  Begin(Settle(ModeWish::Automatic, usualBlockFrames));
}

void HostedStream::FollowGains(const Controls& controls) {
  Evaluation& gains = stage.Gains();
  const std::size_t classCount = gainsDb.size() - 2;
  const auto follow = [this](std::size_t place, float wanted, auto set) {
    if (std::isnan(wanted) || gainsDb[place] == wanted) return;
    gainsDb[place] = wanted;
    set(LinearGain(wanted));
  };
  for (std::size_t i = 0; i < std::min(classCount, controls.classGainsDb.size()); ++i)
    follow(i, controls.classGainsDb[i], [&](float gain) { gains.SetClassGain(i, gain); });
  follow(classCount, controls.restGainDb, [&](float gain) { gains.SetRestGain(gain); });
  follow(classCount + 1, controls.masterGainDb, [&](float gain) { gains.SetMasterGain(gain); });
}

void HostedStream::FollowMode(ModeWish wish, std::uint32_t frames) {
  if (!automaticMode)
    automaticMode = Settle(ModeWish::Automatic, usualBlockFrames ? usualBlockFrames : frames);
  const Mode mode = Settle(wish, frames);
  if (!hasBegun) {
    hasBegun = true;
    Begin(mode);
    return;
  }
  if (mode == stage.GetMode() && !isSwitching) return;
  isSwitching = true;
  // muted first; where the wish is taken back meanwhile, chunks may be missing, too
  if (level > 0 || !stage.TrySwitch(mode)) return;
  isSwitching = false;
  dryDelay.Clear();
  dryDelay.PushSilence(RoundedLatency(mode));
  mutedFrames = RoundedLatency(mode);
}

void HostedStream::Process(const float* const* input, float* const* output, std::uint32_t frames,
                           const Controls& controls) {
  FollowGains(controls);
  if (frames == 0) return;
  if (controls.mayWait) stage.WaitForResults();
  if (!hasBegun) wetness = controls.isBypassed ? 0 : 1;
  std::size_t const channelCount = dry.ChannelCount();
  for (std::uint32_t done = 0; done < frames;) {
    FollowMode(controls.mode, frames);
    const std::uint32_t n = std::min(frames - done, sliceFrames);
    // all of the input before any of the output: they may be the same arrays
    for (std::size_t c = 0; c < channelCount; ++c)
      CopyAudio(input[c] + done, dry[c], n);
    ProcessSlice(n, frames - done - n);
    dryDelay.Push(dry.Channels(), n);
    dryDelay.Pop(dry.Channels(), n);
    MixTo(output, done, n, controls.isBypassed);
    done += n;
  }
}

/// `dry` through the model to `wet`.
void HostedStream::ProcessSlice(std::uint32_t frames, std::uint32_t framesToCome) {
  if (!toModel) {
    stage.Process(dry.Channels(), wet.Channels(), frames, framesToCome);
    return;
  }
  const std::size_t modelFrames = toModel->Process(dry.Channels(), frames, atModelRate.Channels());
  stage.Process(atModelRate.Channels(), fromModel.Channels(), modelFrames,
                toModel->MostFrames(framesToCome));
  const std::size_t back = toHost->Process(fromModel.Channels(), modelFrames, converted.Channels());
  convertedQueue.Push(converted.Channels(), back);
  convertedQueue.Pop(wet.Channels(), frames);
}

/// The slice's output, with the fades of bypass and of a change of mode.
void HostedStream::MixTo(float* const* output, std::uint32_t begin, std::uint32_t frames,
                         bool isBypassed) {
  const float wanted = isBypassed ? 0 : 1;
  for (std::uint32_t i = 0; i < frames; ++i) {
    wetness = Towards(wanted, wetness, fadeStep);
    level = Towards(isSwitching || mutedFrames > 0 ? 0.0F : 1.0F, level, fadeStep);
    if (mutedFrames > 0) --mutedFrames;
    for (std::size_t c = 0; c < dry.ChannelCount(); ++c) {
      // at the ends exactly the one or the other
      const float mixed = wetness == 0   ? dry[c][i]
                          : wetness == 1 ? wet[c][i]
                                         : dry[c][i] + wetness * (wet[c][i] - dry[c][i]);
      output[c][begin + i] = level * mixed;
    }
  }
}

}  // namespace Orvik::Tesmo::Plugin
