#include "hosting/model_stage.h"

#include <algorithm>
#include <utility>

namespace Orvik::Tesmo::Plugin {

ModelStage::ModelStage(const Description& description, const ModelBytes& model,
                       unsigned channelCount)
    : evaluation(description, model, channelCount),
      collected(channelCount, evaluation.ChunkFrames()),
      playing(channelCount, evaluation.ChunkFrames()),
      ahead(channelCount, evaluation.ChunkFrames()), thread(evaluation, channelCount) {}

void ModelStage::Restart(Mode newMode) {
  thread.WaitUntilIdle();
  thread.Forget();
  evaluation.Restart();
  playing.Clear();
  position = 0;
  chunk = firstSpread = 0;
  isDraining = isAhead = false;
  mode = newMode;
}

bool ModelStage::TrySwitch(Mode newMode) {
  firstSpread = chunk;
  isDraining = newMode != mode && !thread.IsIdle();
  if (isDraining || newMode == mode) return !isDraining;
  thread.Forget();
  playing.Clear();
  isAhead = false;
  mode = newMode;
  return true;
}

void ModelStage::Process(const float* const* input, float* const* output, std::size_t frames,
                         std::size_t framesToCome) {
  for (std::size_t done = 0; done < frames;) {
    const std::size_t n = std::min(frames - done, collected.Length() - position);
    for (std::size_t c = 0; c < collected.ChannelCount(); ++c) {
      std::copy_n(input[c] + done, n, collected[c] + position);
      std::copy_n(playing[c] + position, n, output[c] + done);
    }
    done += n;
    position += n;
    if (position == collected.Length()) EndChunk(frames - done + framesToCome);
  }
}

void ModelStage::EndChunk(std::size_t framesToCome) {
  position = 0;
  if (mode == Mode::Direct) {
    evaluation.Run(collected.Channels(), playing.Channels());
  } else {
    FetchResult();
    isAhead = framesToCome >= collected.Length() && thread.IsIdle();
    if (isAhead)
      evaluation.Run(collected.Channels(), ahead.Channels());
    else if (!isDraining)
      thread.Submit(collected, chunk);
  }
  ++chunk;
}

/// What plays next is the chunk before the one that has just been collected.
void ModelStage::FetchResult() {
  if (isAhead) {
    std::swap(playing, ahead);
    return;
  }
  if (chunk > firstSpread && thread.Take(chunk - 1, playing)) return;
  if (chunk > firstSpread && !isDraining) ++lateResults;
  playing.Clear();
}

}  // namespace Orvik::Tesmo::Plugin
