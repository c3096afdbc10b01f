#include "juce/standalone/recording.h"

#include "hosting/rate_converter.h"

#include <KalvrinAppData.h>
#include <algorithm>
#include <cmath>
#include <sndfile.hh>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr double longestSeconds = 30 * 60.0, fadeSeconds = 0.005;

[[noreturn]] void Refuse(const juce::String& why) {
  throw std::runtime_error(why.toStdString());
}

std::shared_ptr<const Recording> Read(SndfileHandle sound, const juce::String& name,
                                      const juce::File& file) {
  if (sound.error() != SF_ERR_NO_ERROR)
    Refuse(name + " is no audio file that can be read: " + sound.strError() +
           " WAV, AIFF, FLAC, Ogg Vorbis, Opus and MP3 can.");
  if (sound.channels() > 2)
    Refuse(name + " has " + juce::String(sound.channels()) +
           " channels. This program plays one or two; kalvrin render takes any number.");
  if (static_cast<double>(sound.frames()) / sound.samplerate() > longestSeconds)
    Refuse(name + " is longer than 30 minutes. Cut a part out of it, or use kalvrin render.");
  auto recording = std::make_shared<Recording>();
  recording->name = name;
  recording->file = file;
  recording->rateHz = sound.samplerate();
  auto& audio = recording->audio;
  audio.setSize(sound.channels(), static_cast<int>(sound.frames()));
  constexpr int framesAtOnce = 4096;
  std::vector<float> interleaved(static_cast<std::size_t>(framesAtOnce * sound.channels()));
  int length = 0;
  while (const auto n = static_cast<int>(sound.readf(
             interleaved.data(), std::min(framesAtOnce, audio.getNumSamples() - length)))) {
    for (int i = 0; i < n * sound.channels(); ++i) {
      const float sample = interleaved[static_cast<std::size_t>(i)];
      audio.setSample(i % sound.channels(), length + i / sound.channels(),
                      std::isfinite(sample) ? sample : 0);
    }
    length += n;
  }
  if (sound.error() != SF_ERR_NO_ERROR) Refuse(name + " cannot be read to its end.");
  if (length == 0) Refuse(name + " has no audio in it.");
  audio.setSize(audio.getNumChannels(), length, true);  // shorter than it has said
  const int fade = std::min(static_cast<int>(fadeSeconds * recording->rateHz), length / 2);
  audio.applyGainRamp(0, fade, 0, 1);
  audio.applyGainRamp(length - fade, fade, 1, 0);
  return recording;
}

}  // namespace

std::shared_ptr<const Recording> ReadRecording(const juce::File& file) {
  if (!file.existsAsFile()) Refuse(file.getFullPathName() + " is not there.");
  return Read(SndfileHandle(file.getFullPathName().toRawUTF8()), file.getFileName(), file);
}

std::shared_ptr<const Recording> ReadDemonstration() {
  const int fd = memfd_create("demonstration.ogg", MFD_CLOEXEC);
  if (fd < 0 || write(fd, AppData::demonstration_ogg, AppData::demonstration_oggSize) !=
                    AppData::demonstration_oggSize)
    Refuse("There is no memory for the demonstration.");
  lseek(fd, 0, SEEK_SET);
  return Read(SndfileHandle(fd, true), "Demonstration", {});
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
  (void)stream.release();  // the writer's now
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
