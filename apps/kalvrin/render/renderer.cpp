#include "render/renderer.h"

#include "command_line/errors.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"
#include "system/process.h"

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <stdexcept>
#include <utility>

namespace Orvik::Tesmo::Tool {

Renderer::Renderer(RenderSettings wanted, LoadedModel& renderModel)
    : settings(std::move(wanted)), reader(settings.input), model(renderModel),
      channelCount(static_cast<std::size_t>(reader.ChannelCount())) {
  format = ChooseFormat(settings.container, settings.encoding, reader.Format());
  settings.stream.channelCount = channelCount;
  BuildMix();
  if (!settings.stemFolder.empty()) BuildStems();
  block.emplace(channelCount, settings.stream.blockFrames);
}

/// The model states a rate, and the file has another.
bool Renderer::IsConverted() const {
  const std::int32_t rate = model.Facts().sampleRateHz;
  return rate > 0 && rate != reader.SampleRate();
}

/// A stream at the rate of the file. `highBand`: what it plays above the model's band.
std::unique_ptr<StreamProcessor> Renderer::MakeStream(Hosting::HighBand highBand) {
  if (!IsConverted()) return model.MakeStream(settings.stream);
  StreamRequest inner = settings.stream;
  inner.blockFrames = Hosting::FullBandStream::InnerBlockFrames(model.Facts(), settings.stream);
  auto atModelRate = model.MakeStream(inner);
  try {
    auto stream = std::make_unique<Hosting::FullBandStream>(
        model.Facts(), settings.stream, reader.SampleRate(), std::move(atModelRate));
    stream->SetHighBand(highBand);
    latency = stream->LatencyFrames();
    converted.push_back(stream.get());
    return stream;
  } catch (const std::runtime_error& error) {  // rates too far apart
    throw Refusal(reader.Name() + ": " + error.what());
  }
}

void Renderer::BuildMix() {
  std::unique_ptr<StreamProcessor> mix;
  try {
    model.Load();
    settings.stream = model.Facts().Settle(settings.stream);
    ExpectRate();
    latency = model.Facts().Latency(settings.stream);
    mix = MakeStream(settings.highBand);
  } catch (...) {
    throw model.RefusalFor(settings.stream);
  }
  SetMix(*mix, settings.gains, model.Facts());
  AddStream(std::move(mix)).AddWriter(MakeWriter(settings.output));
}

void Renderer::BuildStems() {
  stemFolder.emplace(settings.stemFolder);
  const auto stems = StemsOf(model.Facts());
  // Mix and Rest come first, so that they keep their names: scripts rely on them.
  std::vector<std::string> titles = {"Mix", "Rest"};
  for (const Stem& stem : stems)
    if (!stem.isRemainder) titles.push_back(stem.title);
  const auto names = SafeFileNames(titles);
  const auto pathOf = [&](std::size_t index) {
    return settings.stemFolder + "/" + names[index] + std::string(ExtensionOf(format.container));
  };
  streams.front()->AddWriter(MakeWriter(pathOf(0)));
  std::size_t index = 2;
  for (const Stem& stem : stems) {
    auto stream = MakeStream(Hosting::HighBand::Rest);  // so that the stems add up to the input
    SetStem(*stream, stem);
    AddStream(std::move(stream)).AddWriter(MakeWriter(pathOf(stem.isRemainder ? 1 : index++)));
  }
}

void Renderer::ExpectRate() const {
  if (settings.resample || !IsConverted()) return;
  throw Refusal(reader.Name() + " has a sample rate of " + std::to_string(reader.SampleRate()) +
                " Hz, and the model works at " + std::to_string(model.Facts().sampleRateHz) +
                " Hz; --resample converts there and back");
}

RenderStream& Renderer::AddStream(std::unique_ptr<StreamProcessor> stream) {
  RenderSizes sizes{};
  sizes.channelCount = channelCount;
  sizes.blockFrames = settings.stream.blockFrames;
  sizes.skippedFrames = settings.rawLatency ? 0 : latency;
  sizes.rateHz = reader.SampleRate();
  streams.push_back(std::make_unique<RenderStream>(std::move(stream), sizes));
  return *streams.back();
}

std::unique_ptr<AudioWriter> Renderer::MakeWriter(const std::string& path) const {
  return std::make_unique<AudioWriter>(path, format, reader.ChannelCount(), reader.SampleRate(),
                                       reader.FrameCount(), reader.Tags());
}

void Renderer::Run(ProgressLine& progress) {
  ReadAll(progress);
  Flush();
  // The stems appear first: where the output is there, all files are.
  for (auto stream = streams.rbegin(); stream != streams.rend(); ++stream)
    for (auto writer = (*stream)->Writers().rbegin(); writer != (*stream)->Writers().rend();
         ++writer)
      (*writer)->Commit();
}

void Renderer::ReadAll(ProgressLine& progress) {
  constexpr std::size_t framesAtOnce = 4096;
  std::vector<float> read(framesAtOnce * channelCount);
  for (;;) {
    ThrowIfInterrupted();
    const std::size_t frames = reader.Read(read.data(), framesAtOnce);
    if (frames == 0) break;
    readFrames += frames;
    Feed({read.data(), frames * channelCount});
    if (const auto expected = reader.FrameCount())
      progress.Update(static_cast<double>(readFrames) / static_cast<double>(*expected));
  }
}

void Renderer::Feed(std::span<const float> audio) {
  pending.insert(pending.end(), audio.begin(), audio.end());
  std::size_t used = 0;
  const std::size_t step = channelCount * block->Length();
  for (; pending.size() - used >= step; used += step)
    RunBlock(pending.data() + used);
  pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(used));
}

void Renderer::RunBlock(const float* interleaved) {
  for (std::size_t c = 0; c < channelCount; ++c)
    for (std::size_t i = 0; i < block->Length(); ++i)
      (*block)[c][i] = interleaved[i * channelCount + c];
  for (const auto& stream : streams)
    stream->Process(block->Channels());
  runFrames += block->Length();
}

/// Feeds silence until the streams have returned all audio, and completes the files.
void Renderer::Flush() {
  for (const auto& stream : streams)
    stream->SetLength(readFrames + (settings.rawLatency ? latency : 0));
  while (readFrames > 0 && runFrames < readFrames + latency) {
    ThrowIfInterrupted();
    pending.resize(channelCount * block->Length());
    RunBlock(pending.data());
    pending.clear();
  }
  for (const auto& stream : streams)
    stream->Finish();
}

double Renderer::AudioSeconds() const {
  return static_cast<double>(readFrames) / reader.SampleRate();
}

void Renderer::PrintSummary(std::ostream& out) const {
  const double audioSeconds = AudioSeconds();
  const double processing = streams.front()->ProcessingSeconds();
  PrintField(out, "model",
             PrintableText(model.Facts().info.GetName()) + ": " +
                 StreamText(settings.stream, model.Facts()));
  PrintField(out, "audio",
             Counted(channelCount, "channel") + ", " + std::to_string(reader.SampleRate()) +
                 " Hz, " + DurationText(audioSeconds));
  PrintField(out, "gains", MixText(settings.gains, model.Facts()));
  PrintField(
      out, "latency",
      LatencyText(latency, IsConverted() ? reader.SampleRate() : model.Facts().sampleRateHz) +
          (settings.rawLatency ? ", left in" : ", taken out"));
  char speed[96];
  std::snprintf(speed, sizeof speed, "real-time factor %.4f (%s of processing)",
                audioSeconds > 0 ? processing / audioSeconds : 0.0,
                DurationText(processing).c_str());
  PrintField(out, "speed", speed);
  for (const auto& stream : streams)
    for (const auto& writer : stream->Writers())
      PrintField(out, "written", writer->Name() + " (" + FormatText(format) + ")");
}

std::vector<std::string> Renderer::Warnings() const {
  std::vector<std::string> warnings = Notes(model.Facts());
  const auto warn = [&warnings](std::string text) { warnings.push_back(std::move(text)); };
  if (reader.NonFiniteSamples() != 0)
    warn(reader.Name() + " holds values that are not finite (" +
         Counted(reader.NonFiniteSamples(), "sample") + ", the first in frame " +
         std::to_string(reader.FirstNonFiniteFrame()) + "); they are taken as silence");
  std::uint64_t silenced = 0;
  for (const Hosting::FullBandStream* stream : converted)
    silenced += stream->NonFiniteSamples();
  if (silenced != 0)
    warn("the model gave values that are not finite (" + Counted(silenced, "sample") +
         "); they are taken as silence");
  for (const auto& stream : streams)
    for (const auto& writer : stream->Writers()) {
      if (writer->NonFiniteSamples() != 0)
        warn("the model gave values that are not finite (" +
             Counted(writer->NonFiniteSamples(), "sample") + " of " + writer->Name() +
             "); they are written as silence");
      if (writer->ClippedSamples() != 0)
        warn(writer->Name() + " is louder than full scale (" +
             Counted(writer->ClippedSamples(), "sample") +
             ") and was cut; a lower --master or --encoding float avoids that");
    }
  return warnings;
}

}  // namespace Orvik::Tesmo::Tool
