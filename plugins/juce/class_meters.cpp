#include "juce/class_meters.h"

#include "kalvrin/stream_processor.h"
#include "runtime/text.h"

#include <algorithm>
#include <stdexcept>

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr std::size_t framesAtOnce = 1024;

}  // namespace

ClassMeters::ClassMeters(const Hosting::Description& description, const Hosting::ModelBytes& model,
                         double hostRateHz, unsigned channels, std::span<LevelMeter> meters)
    : modelRateHz(description.sampleRateHz ? description.sampleRateHz : hostRateHz),
      channelCount(channels), taken(channels, framesAtOnce), atModelRate(0, 0),
      collected(channels, description.ChunkFrames()), result(channels, description.ChunkFrames()) {
  std::size_t most = framesAtOnce;
  if (modelRateHz != hostRateHz) {
    toModel.emplace(hostRateHz, modelRateHz, channelCount);
    most = toModel->MostFrames(framesAtOnce);
  }
  atModelRate = Hosting::Frames(channelCount, most);
  const std::size_t classCount = std::min(description.classes.size(), meters.size() - 1);
  for (std::size_t i = 0; i < classCount; ++i)
    AddStrip(description, model, Dnn::Utf16FromUtf8(description.classes[i]).c_str(), meters[i]);
  AddStrip(description, model, u"Rest", meters.back());
}

void ClassMeters::AddStrip(const Hosting::Description& description,
                           const Hosting::ModelBytes& model, const char16_t* className,
                           LevelMeter& meter) {
  std::unique_ptr<StreamProcessor> stream(
      CreateStreamProcessor(model.data(), model.size(), description.sequenceSize, channelCount,
                            description.ChunkFrames()));
  if (!stream || !stream->SetMasterGain(1) || !stream->SetAudioClassGain(className, 1))
    throw std::runtime_error("there is no stream for the level of a class");
  strips.push_back(
      {std::make_unique<Hosting::Evaluation>(description, std::move(stream), channelCount),
       &meter});
}

void ClassMeters::TakeFrom(AudioPipe& pipe) {
  for (int turns = 0; turns < 16; ++turns) {
    const std::size_t n = pipe.Pop(taken.Channels(), taken.Length());
    if (n == 0) break;
    Take(taken.Channels(), n);
  }
}

void ClassMeters::Take(const float* const* input, std::size_t frames) {
  if (toModel) {
    frames = toModel->Process(input, frames, atModelRate.Channels());
    input = atModelRate.Channels();
  }
  for (std::size_t done = 0; done < frames;) {
    const std::size_t n = std::min(frames - done, collected.Length() - filled);
    for (std::size_t c = 0; c < channelCount; ++c)
      std::copy_n(input[c] + done, n, collected[c] + filled);
    done += n;
    filled += n;
    if (filled < collected.Length()) break;
    filled = 0;
    for (const Strip& strip : strips) {
      strip.evaluation->Run(collected.Channels(), result.Channels());
      strip.meter->Add(result.Channels(), channelCount, result.Length(), modelRateHz);
    }
  }
}

}  // namespace Orvik::Tesmo::Plugin
