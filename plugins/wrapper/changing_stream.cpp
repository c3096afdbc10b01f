#include "wrapper/changing_stream.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr double crossFadeSeconds = 0.05;

}  // namespace

std::unique_ptr<AskedModel> NoModel() {
  auto none = std::make_unique<AskedModel>();
  none->status = "no model: the input plays";
  return none;
}

ChangingStream::ChangingStream(std::unique_ptr<AskedModel> first, double hostRateHz,
                               unsigned channelCount, std::uint32_t longestBlock)
    : hostRateHz(hostRateHz), current(std::move(first)),
      fadeFrames(static_cast<std::uint32_t>(std::lround(crossFadeSeconds * hostRateHz))),
      fromComing(channelCount, longestBlock), inputs(channelCount), outputs(channelCount) {}

void ChangingStream::Activate() {
  for (auto* later : {&coming, &waiting})
    if (*later) current = std::move(*later);
  former.reset();
  hasPlayed = isFading = false;
  if (current->stream) current->stream->Activate();
}

std::unique_ptr<AskedModel> ChangingStream::ChangeTo(std::unique_ptr<AskedModel> asked) {
  std::swap(hasPlayed ? waiting : current, asked);
  return asked;
}

std::uint32_t ChangingStream::GetLatencyFrames(Hosting::ModeWish wish) const {
  return Heard().stream ? Heard().stream->GetLatencyFrames(wish) : 0;
}

std::uint64_t ChangingStream::LateResults() const {
  return Heard().stream ? Heard().stream->LateResults() : 0;
}

float ChangingStream::Load() const {
  float load = 0;
  for (const auto* model : {&current, &coming})
    if (*model && (*model)->stream) load += (*model)->stream->Load();
  return load;
}

/// The next change, where one is wanted and the last one has ended.
void ChangingStream::Begin() {
  if (coming || !waiting || former) return;
  coming = std::move(waiting);
  isFading = !coming->stream;
  framesDone = 0;
}

/// The new model's output is its own after its latency, and its gains have faded in a hop later.
std::uint32_t ChangingStream::FramesOfPhase(Hosting::ModeWish wish) const {
  if (isFading) return fadeFrames;
  return coming->stream->GetLatencyFrames(wish) +
         static_cast<std::uint32_t>(std::lround(coming->hopSeconds * hostRateHz));
}

void ChangingStream::EndPhase() {
  framesDone = 0;
  isFading = !isFading;
  if (isFading) return;
  former = std::move(current);
  current = std::move(coming);
}

void ChangingStream::Play(AskedModel& model, float* const* to, std::uint32_t frames,
                          const Hosting::Controls& controls) {
  if (model.stream) return model.stream->Process(inputs.data(), to, frames, controls);
  for (std::size_t c = 0; c < inputs.size(); ++c)
    if (to[c] != inputs[c]) std::copy_n(inputs[c], frames, to[c]);
}

/// Both hold nearly the same audio, so the two gains add up to 1.
void ChangingStream::FadeIn(std::uint32_t frames) {
  for (std::size_t c = 0; c < outputs.size(); ++c)
    for (std::uint32_t i = 0; i < frames; ++i) {
      const float share = static_cast<float>(framesDone + i + 1) / static_cast<float>(fadeFrames);
      outputs[c][i] += share * (fromComing[c][i] - outputs[c][i]);
    }
}

void ChangingStream::Process(const float* const* input, float* const* output, std::uint32_t frames,
                             const Hosting::Controls& controls) {
  std::uint32_t done = 0;
  hasPlayed = hasPlayed || frames != 0;
  do {
    for (std::size_t c = 0; c < inputs.size(); ++c) {
      inputs[c] = input[c] + done;
      outputs[c] = output[c] + done;
    }
    Begin();
    if (!coming) return Play(*current, outputs.data(), frames - done, controls);
    const auto most = static_cast<std::uint32_t>(fromComing.Length());
    const std::uint32_t left = FramesOfPhase(controls.mode);
    const std::uint32_t n = std::min({frames - done, most, left - std::min(left, framesDone)});
    // before the old model: input and output may be one array
    Play(*coming, fromComing.Channels(), n, controls);
    Play(*current, outputs.data(), n, controls);
    if (isFading) FadeIn(n);
    framesDone += n;
    done += n;
    if (framesDone >= FramesOfPhase(controls.mode)) EndPhase();
  } while (done < frames);
}

}  // namespace Orvik::Tesmo::Plugin
