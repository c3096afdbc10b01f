#include "hosting/model_stage.h"

#include <algorithm>
#include <utility>

namespace Orvik::Tesmo::Hosting {
namespace {

constexpr double coverFadeSeconds = 0.005;

}  // namespace

ModelStage::ModelStage(const Description& description, std::unique_ptr<StreamProcessor> stream,
                       std::size_t channelCount, double modelRateHz, double hostRateHz,
                       bool hasThread)
    : modelRateHz(modelRateHz), evaluation(description, std::move(stream), channelCount),
      collected(channelCount, evaluation.ChunkFrames()),
      ahead(channelCount, evaluation.ChunkFrames()),
      playing(channelCount, evaluation.ChunkFrames()),
      dryDelay(channelCount, LatencyFrames(Mode::Spread)),
      highBand(std::min(0.5, 0.5 * hostRateHz / modelRateHz), channelCount,
               description.HopLength()),
      fadeStep(static_cast<float>(1 / (coverFadeSeconds * modelRateHz))), step(channelCount),
      lastDifference(channelCount) {
  if (hasThread) thread.emplace(evaluation, channelCount);
  BeginDry();
}

/// The dry path in step with the mode's latency, and nothing covered.
void ModelStage::BeginDry() {
  dryDelay.Clear();
  dryDelay.PushSilence(LatencyFrames(mode) - evaluation.ChunkFrames());
  highBand.Restart();
  isCovered = false;
  resultShare = 1;
  stepShare = 0;
  std::fill(lastDifference.begin(), lastDifference.end(), 0.0F);
}

void ModelStage::Restart(Mode newMode) {
  if (thread) {
    thread->WaitUntilIdle();
    thread->Forget();
  }
  evaluation.Restart();
  for (Frames* frames : {&playing.mix, &playing.dry, &playing.highBandGain})
    frames->Clear();
  position = 0;
  chunk = firstSpread = 0;
  isDraining = isAhead = false;
  mode = newMode;
  BeginDry();
}

bool ModelStage::TrySwitch(Mode newMode) {
  firstSpread = chunk;
  if (newMode == mode) {
    isDraining = false;
    return true;
  }
  isDraining = !thread->IsIdle();
  if (isDraining) return false;
  thread->Forget();
  playing.mix.Clear();
  playing.dry.Clear();
  isAhead = false;
  mode = newMode;
  BeginDry();
  return true;
}

double ModelStage::TakeWorstLoad() {
  if (!thread) return 0;
  return thread->TakeWorstSeconds() * modelRateHz / static_cast<double>(evaluation.ChunkFrames());
}

void ModelStage::Process(const float* const* input, StageOutput& output, std::size_t frames,
                         std::size_t framesToCome) {
  for (std::size_t done = 0; done < frames;) {
    const std::size_t n = std::min(frames - done, collected.Length() - position);
    for (std::size_t c = 0; c < collected.ChannelCount(); ++c) {
      std::copy_n(input[c] + done, n, collected[c] + position);
      std::copy_n(playing.mix[c] + position, n, output.mix[c] + done);
      std::copy_n(playing.dry[c] + position, n, output.dry[c] + done);
      std::copy_n(playing.highBandGain[c] + position, n, output.highBandGain[c] + done);
    }
    done += n;
    position += n;
    if (position == collected.Length()) EndChunk(frames - done + framesToCome);
  }
}

void ModelStage::EndChunk(std::size_t framesToCome) {
  position = 0;
  dryDelay.Push(collected.Channels(), collected.Length());
  dryDelay.Pop(playing.dry.Channels(), collected.Length());
  if (mode == Mode::Direct) {
    Cover(evaluation.Run(collected.Channels(), playing.mix.Channels()));
  } else {
    Cover(FetchResult());
    isAhead = framesToCome >= collected.Length() && thread->IsIdle();
    if (isAhead)
      aheadHasResult = evaluation.Run(collected.Channels(), ahead.Channels());
    else if (!isDraining)
      thread->Submit(collected, chunk);
  }
  highBand.Follow(playing.mix, playing.dry, highBandChoice, gains, playing.highBandGain);
  ++chunk;
}

/// The mix that plays next is of the chunk before the one that has just been collected. Returns
/// false where it should be there and is not.
bool ModelStage::FetchResult() {
  if (isAhead) {
    std::swap(playing.mix, ahead);
    return aheadHasResult;
  }
  bool hasResult = true;
  if (chunk > firstSpread && thread->Take(chunk - 1, playing.mix, hasResult)) return hasResult;
  playing.mix.Clear();
  if (chunk == firstSpread || isDraining) return true;
  ++lateResults;
  return false;
}

/// Without a result no class is known, so the chunk plays the dry path at the gain of Rest. Where
/// results end there is no more of them to fade out: the step between the two decays instead. Where
/// they come back they fade in.
void ModelStage::Cover(bool hasResult) {
  const std::size_t frames = playing.mix.Length();
  if (!hasResult && !isCovered) {
    step = lastDifference;
    stepShare = 1;
    resultShare = 0;
  }
  isCovered = !hasResult;
  for (std::size_t i = 0; i < frames && resultShare < 1; ++i) {
    if (hasResult) resultShare = std::min(1.0F, resultShare + fadeStep);
    stepShare = std::max(0.0F, stepShare - fadeStep);
    for (std::size_t c = 0; c < step.size(); ++c) {
      const float dry = gains.rest * playing.dry[c][i] + stepShare * step[c];
      float& mix = playing.mix[c][i];
      mix = hasResult ? dry + resultShare * (mix - dry) : dry;
    }
  }
  for (std::size_t c = 0; c < step.size(); ++c)
    lastDifference[c] = playing.mix[c][frames - 1] - gains.rest * playing.dry[c][frames - 1];
}

}  // namespace Orvik::Tesmo::Hosting
