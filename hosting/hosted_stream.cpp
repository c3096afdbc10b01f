#include "hosting/hosted_stream.h"

#include "kalvrin/stream_processor.h"
#include "runtime/text.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>

namespace Orvik::Tesmo::Hosting {
namespace {

constexpr double fadeSeconds = 0.01;

/// In double, as the tool does: the same gain to the last bit.
float LinearGain(float db) {
  if (db <= lowestGainDb) return 0;
  return static_cast<float>(std::pow(10.0, std::min(db, highestGainDb) / 20.0));
}

/// Throws std::runtime_error where the library refuses the model.
std::unique_ptr<StreamProcessor> MakeStream(const Description& description, const ModelBytes& model,
                                            unsigned channelCount) {
  std::unique_ptr<StreamProcessor> stream(
      CreateStreamProcessor(model.data(), model.size(), description.sequenceSize, channelCount,
                            description.ChunkFrames()));
  if (!stream)
    throw std::runtime_error("the library refuses the model of " + description.name +
                             "; 'kalvrin check' on it says why");
  return stream;
}

float Towards(float target, float value, float step) {
  return value < target ? std::min(target, value + step) : std::max(target, value - step);
}

}  // namespace

double HostedStream::CheckedRate(double rateHz) {
  if (rateHz >= lowestRateHz && rateHz <= highestRateHz) return rateHz;
  throw std::runtime_error("a sample rate of " + std::to_string(rateHz) +
                           " Hz is not from 8 to 192 kHz");
}

HostedStream::HostedStream(const Description& description, std::shared_ptr<const ModelBytes> bytes,
                           double rateHz, unsigned channelCount, std::uint32_t usualBlockFrames)
    : hostRateHz(CheckedRate(rateHz)), hopLength(description.HopLength()),
      usualBlockFrames(usualBlockFrames), model(std::move(bytes)),
      stage(description, MakeStream(description, *model, channelCount), channelCount, hostRateHz,
            true),
      fadeStep(static_cast<float>(1 / (fadeSeconds * hostRateHz))),
      gainsDb(description.classes.size() + 2), gains(gainsDb.size(), 1) {
  StreamProcessor& stream = stage.Model().GetEvaluation().Stream();
  stream.ResetGains();
  for (const std::string& name : description.classes) {
    classNames.push_back(Dnn::Utf16FromUtf8(name));
    if (!stream.SetAudioClassGain(classNames.back().c_str(), 1))
      throw std::runtime_error("the model of " + description.name + " has no class " + name);
  }
  Begin(Settle(ModeWish::Automatic, usualBlockFrames));
}

Mode HostedStream::Settle(ModeWish wish, std::uint32_t blockFrames) const {
  if (wish != ModeWish::Automatic) return wish == ModeWish::Direct ? Mode::Direct : Mode::Spread;
  if (automaticMode) return *automaticMode;
  const bool isShort = blockFrames != 0 && blockFrames * stage.ModelRateHz() <
                                               static_cast<double>(hopLength) * hostRateHz;
  return isShort ? Mode::Spread : Mode::Direct;
}

std::uint32_t HostedStream::GetLatencyFrames(ModeWish wish) const {
  return stage.LatencyFrames(hasBegun ? GetMode() : Settle(wish, usualBlockFrames));
}

/// Before the first frame: all but the stage, which is silent, in place for `mode`.
void HostedStream::Begin(Mode mode) {
  stage.Model().TrySwitch(mode);
  stage.Begin();
  level = 1;
  isSwitching = false;
  mutedFrames = 0;
  loads.fill(0);
  loadFrames = 0;
}

void HostedStream::Activate() {
  if (hasBegun) stage.Model().Restart(Mode::Direct);
  hasBegun = false;
  automaticMode.reset();
  Begin(Settle(ModeWish::Automatic, usualBlockFrames));
}

void HostedStream::FollowGains(const Controls& controls) {
  StreamProcessor& stream = stage.Model().GetEvaluation().Stream();
  const std::size_t classCount = gainsDb.size() - 2;
  const auto follow = [this](std::size_t place, float wanted, auto set) {
    if (std::isnan(wanted) || gainsDb[place] == wanted) return;
    gainsDb[place] = wanted;
    gains[place] = LinearGain(wanted);
    set(gains[place]);
  };
  for (std::size_t i = 0; i < std::min(classCount, controls.classGainsDb.size()); ++i)
    follow(i, controls.classGainsDb[i],
           [&](float gain) { stream.SetAudioClassGain(classNames[i].c_str(), gain); });
  follow(classCount, controls.restGainDb,
         [&](float gain) { stream.SetAudioClassGain(u"Rest", gain); });
  follow(classCount + 1, controls.masterGainDb, [&](float gain) { stream.SetMasterGain(gain); });
  const auto [least, greatest] = std::minmax_element(gains.begin(), gains.end() - 1);
  const float master = gains.back();
  stage.Model().SetDryGains({.rest = master * gains[classCount],
                             .least = master * *least,
                             .greatest = master * *greatest},
                            controls.highBand);
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
  if (mode == GetMode() && !isSwitching) return;
  isSwitching = true;
  // muted first; where the wish is taken back meanwhile, chunks may be missing, too
  if (level > 0 || !stage.Model().TrySwitch(mode)) return;
  isSwitching = false;
  stage.Begin();
  mutedFrames = stage.LatencyFrames(mode);
}

void HostedStream::Process(const float* const* input, float* const* output, std::uint32_t frames,
                           const Controls& controls) {
  using Clock = std::chrono::steady_clock;
  FollowGains(controls);
  if (frames == 0) return;
  if (controls.mayWait) stage.Model().WaitForResults();
  const auto begin = Clock::now();
  ProcessAll(input, output, frames, controls);
  CountLoad(std::chrono::duration<double>(Clock::now() - begin).count(), frames);
}

void HostedStream::ProcessAll(const float* const* input, float* const* output, std::uint32_t frames,
                              const Controls& controls) {
  if (!hasBegun) wetShare = controls.isBypassed ? 0 : 1;
  for (std::uint32_t done = 0; done < frames;) {
    FollowMode(controls.mode, frames);
    const std::uint32_t n = std::min(frames - done, HostStage::sliceFrames);
    // all of the input before any of the output: they may be the same arrays
    stage.Process(input, done, n, frames - done - n);
    MixTo(output, done, n, controls.isBypassed);
    done += n;
  }
}

/// The slice's output, with the fades of bypass and of a change of mode.
void HostedStream::MixTo(float* const* output, std::uint32_t begin, std::uint32_t frames,
                         bool isBypassed) {
  const Frames& dry = stage.Dry();
  const Frames& wet = stage.Wet();
  const float wanted = isBypassed ? 0 : 1;
  for (std::uint32_t i = 0; i < frames; ++i) {
    wetShare = Towards(wanted, wetShare, fadeStep);
    level = Towards(isSwitching || mutedFrames > 0 ? 0.0F : 1.0F, level, fadeStep);
    if (mutedFrames > 0) --mutedFrames;
    for (std::size_t c = 0; c < dry.ChannelCount(); ++c) {
      // at the ends exactly the one or the other
      const float mixed = wetShare == 0   ? dry[c][i]
                          : wetShare == 1 ? wet[c][i]
                                          : dry[c][i] + wetShare * (wet[c][i] - dry[c][i]);
      output[c][begin + i] = level * mixed;
    }
  }
}

void HostedStream::CountLoad(double seconds, std::uint32_t frames) {
  const auto load = static_cast<float>(
      std::max(seconds * hostRateHz / static_cast<double>(frames), stage.Model().TakeWorstLoad()));
  loads.front() = std::max(loads.front(), load);
  const auto tenth = static_cast<std::uint32_t>(hostRateHz / 10);
  for (loadFrames += frames; loadFrames >= tenth; loadFrames -= tenth) {
    std::shift_right(loads.begin(), loads.end(), 1);
    loads.front() = 0;
  }
}

float HostedStream::Load() const {
  return *std::max_element(loads.begin(), loads.end());
}

}  // namespace Orvik::Tesmo::Hosting
