#include "juce/standalone/recording.h"

#include "hosting/rate_converter.h"

#include <KalvrinAppData.h>
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr double longestSeconds = 30 * 60.0, fadeSeconds = 0.005;

[[noreturn]] void Refuse(const juce::String& why) {
  throw std::runtime_error(why.toStdString());
}

std::shared_ptr<const Recording> Read(std::unique_ptr<juce::AudioFormatReader> reader,
                                      const juce::String& name, const juce::File& file) {
  if (!reader || reader->sampleRate <= 0)
    Refuse(name + " is no audio file that can be read. WAV, AIFF, FLAC and Ogg Vorbis can.");
  if (reader->lengthInSamples < 1) Refuse(name + " has no audio in it.");
  if (reader->numChannels > 2)
    Refuse(name + " has " + juce::String(reader->numChannels) +
           " channels. This program plays one or two; kalvrin render takes any number.");
  if (static_cast<double>(reader->lengthInSamples) / reader->sampleRate > longestSeconds)
    Refuse(name + " is longer than 30 minutes. Cut a part out of it, or use kalvrin render.");
  auto recording = std::make_shared<Recording>();
  recording->name = name;
  recording->file = file;
  recording->rateHz = reader->sampleRate;
  const int length = static_cast<int>(reader->lengthInSamples);
  auto& audio = recording->audio;
  audio.setSize(static_cast<int>(reader->numChannels), length);
  if (!reader->read(audio.getArrayOfWritePointers(), audio.getNumChannels(), 0, length))
    Refuse(name + " cannot be read to its end.");
  const int fade = std::min(static_cast<int>(fadeSeconds * reader->sampleRate), length / 2);
  audio.applyGainRamp(0, fade, 0, 1);
  audio.applyGainRamp(length - fade, fade, 1, 0);
  return recording;
}

}  // namespace

std::shared_ptr<const Recording> ReadRecording(const juce::File& file) {
  juce::AudioFormatManager formats;
  formats.registerBasicFormats();
  if (!file.existsAsFile()) Refuse(file.getFullPathName() + " is not there.");
  return Read(std::unique_ptr<juce::AudioFormatReader>(formats.createReaderFor(file)),
              file.getFileName(), file);
}

std::shared_ptr<const Recording> ReadDemonstration() {
  auto stream = std::make_unique<juce::MemoryInputStream>(
      AppData::demonstration_ogg, static_cast<std::size_t>(AppData::demonstration_oggSize), false);
  juce::OggVorbisAudioFormat ogg;
  return Read(std::unique_ptr<juce::AudioFormatReader>(ogg.createReaderFor(stream.release(), true)),
              "Demonstration", {});
}

juce::AudioBuffer<float> AtRate(const Recording& recording, double rateHz) {
  const auto& from = recording.audio;
  if (recording.rateHz == rateHz) return from;
  const int channels = from.getNumChannels();
  const auto length =
      static_cast<int>(std::lround(from.getNumSamples() * rateHz / recording.rateHz));
  Hosting::RateConverter converter(recording.rateHz, rateHz, static_cast<std::size_t>(channels));
  constexpr int blockFrames = 4096;
  juce::AudioBuffer<float> to(channels, length);
  juce::AudioBuffer<float> in(channels, blockFrames);
  juce::AudioBuffer<float> out(channels, static_cast<int>(converter.MostFrames(blockFrames)));
  for (int read = 0, written = 0; written < length; read += blockFrames) {
    in.clear();  // after the end, silence brings out what the filter holds
    const int n = std::clamp(from.getNumSamples() - read, 0, blockFrames);
    for (int c = 0; n > 0 && c < channels; ++c)
      in.copyFrom(c, 0, from, c, read, n);
    const auto made = static_cast<int>(
        converter.Process(in.getArrayOfReadPointers(), blockFrames, out.getArrayOfWritePointers()));
    const int kept = std::min(made, length - written);
    for (int c = 0; c < channels; ++c)
      to.copyFrom(c, written, out, c, 0, kept);
    written += kept;
  }
  return to;
}

std::unique_ptr<juce::AudioFormatWriter> CreateWriter(const juce::File& file, double rateHz,
                                                      unsigned channelCount) {
  auto stream = std::make_unique<juce::FileOutputStream>(file);
  const auto refuse = [&file] {
    Refuse("No file can be written in " + file.getParentDirectory().getFullPathName() + ".");
  };
  if (!stream->openedOk() || !stream->setPosition(0) || stream->truncate().failed()) refuse();
  juce::WavAudioFormat wav;
  std::unique_ptr<juce::AudioFormatWriter> writer(
      wav.createWriterFor(stream.get(), rateHz, channelCount, 32, {}, 0));
  if (!writer) refuse();
  stream.release();  // the writer's now
  return writer;
}

void WriteResult(const Recording& recording, juce::AudioProcessor& processor,
                 const juce::File& file, const std::function<bool(double)>& report) {
  constexpr int blockFrames = 1024, channels = 2;
  const auto& from = recording.audio;
  const int length = from.getNumSamples();
  processor.setNonRealtime(true);
  processor.setPlayConfigDetails(channels, channels, recording.rateHz, blockFrames);
  processor.prepareToPlay(recording.rateHz, blockFrames);
  const juce::TemporaryFile temporary(file);
  auto writer = CreateWriter(temporary.getFile(), recording.rateHz,
                             static_cast<unsigned>(from.getNumChannels()));
  juce::AudioBuffer<float> block(channels, blockFrames);
  juce::MidiBuffer noMidi;
  int skip = processor.getLatencySamples();
  for (int read = 0, written = 0; written < length; read += blockFrames) {
    block.clear();
    const int n = std::clamp(length - read, 0, blockFrames);
    for (int c = 0; n > 0 && c < channels; ++c)
      block.copyFrom(c, 0, from, std::min(c, from.getNumChannels() - 1), read, n);
    processor.processBlock(block, noMidi);
    const int skipped = std::min(skip, blockFrames);
    skip -= skipped;
    const int kept = std::min(blockFrames - skipped, length - written);
    if (kept > 0 && !writer->writeFromAudioSampleBuffer(block, skipped, kept))
      Refuse(file.getFullPathName() + " cannot be written to its end. Is the disk full?");
    written += kept;
    if (!report(static_cast<double>(written) / length)) return;
  }
  writer.reset();
  if (!temporary.overwriteTargetFileWithTemporary())
    Refuse(file.getFullPathName() + " cannot be written.");
}

}  // namespace Orvik::Tesmo::Plugin
