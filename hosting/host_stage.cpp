#include "hosting/host_stage.h"

#include <cmath>
#include <utility>

namespace Orvik::Tesmo::Hosting {
namespace {

/// Louder than any audio, far from where sums overflow: 120 dB above full scale.
constexpr float loudest = 1e6F;

/// Copies, with silence for what is no audio.
void CopyAudio(const float* from, float* to, std::uint32_t frames) {
  for (std::uint32_t i = 0; i < frames; ++i)
    to[i] = std::fabs(from[i]) <= loudest ? from[i] : 0.0F;
}

}  // namespace

HostStage::HostStage(const Description& description, std::unique_ptr<StreamProcessor> stream,
                     std::size_t channelCount, double hostRateHz, bool hasThread)
    : modelRateHz(description.sampleRateHz ? description.sampleRateHz : hostRateHz),
      model(description, std::move(stream), channelCount, modelRateHz, hostRateHz, hasThread),
      dry(channelCount, sliceFrames), wet(channelCount, sliceFrames), atModelRate(channelCount, 0),
      fromModel(channelCount, sliceFrames), dryDelay(channelCount, 0) {
  if (hostRateHz != modelRateHz) {
    fullBand.emplace(hostRateHz, modelRateHz, channelCount, sliceFrames);
    atModelRate = Frames(channelCount, fullBand->MostModelFrames(sliceFrames));
    fromModel = StageOutput(channelCount, atModelRate.Length());
  }
  dryDelay = FrameQueue(channelCount,
                        LatencyFrames(hasThread ? Mode::Spread : Mode::Direct) + sliceFrames);
  Begin();
}

std::uint32_t HostStage::LatencyFrames(Mode mode) const {
  const std::uint64_t frames = model.LatencyFrames(mode);
  return static_cast<std::uint32_t>(fullBand ? fullBand->LatencyFrames(frames) : frames);
}

void HostStage::Begin() {
  if (fullBand) fullBand->Begin(model.LatencyFrames(model.GetMode()));
  dryDelay.Clear();
  dryDelay.PushSilence(LatencyFrames(model.GetMode()));
}

void HostStage::Process(const float* const* input, std::size_t begin, std::uint32_t frames,
                        std::size_t framesToCome) {
  for (std::size_t c = 0; c < dry.ChannelCount(); ++c)
    CopyAudio(input[c] + begin, dry[c], frames);
  std::size_t modelFrames = frames;
  if (fullBand) {
    modelFrames = fullBand->ToModel(dry.Channels(), frames, atModelRate.Channels());
    model.Process(atModelRate.Channels(), fromModel, modelFrames,
                  fullBand->MostModelFrames(framesToCome));
  } else {
    model.Process(dry.Channels(), fromModel, frames, framesToCome);
  }
  dryDelay.Push(dry.Channels(), frames);
  dryDelay.Pop(dry.Channels(), frames);
  if (fullBand)
    fullBand->ToHost(fromModel.mix.Channels(), fromModel.dry.Channels(),
                     fromModel.highBandGain.Channels(), modelFrames, dry.Channels(), wet.Channels(),
                     frames);
  else
    std::swap(wet, fromModel.mix);
}

}  // namespace Orvik::Tesmo::Hosting
