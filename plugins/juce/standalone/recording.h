#pragma once

// Audio files in memory: what the program plays in a loop, and what it writes.

#include <juce_audio_formats/juce_audio_formats.h>
#include <juce_audio_processors/juce_audio_processors.h>

#include <functional>
#include <memory>

namespace Orvik::Tesmo::Plugin {

/// A whole file, full scale 1, with fades of 5 ms at both ends, so that it can be repeated.
struct Recording {
  juce::String name;
  juce::File file;  // none: the demonstration
  double rateHz = 0;
  juce::AudioBuffer<float> audio;  // one or two channels

  double Seconds() const { return audio.getNumSamples() / rateHz; }
};

/// WAV, AIFF, FLAC, Ogg Vorbis, Opus, MP3. Slow; any thread. Throws std::runtime_error with a
/// sentence for people.
std::shared_ptr<const Recording> ReadRecording(const juce::File& file);
std::shared_ptr<const Recording> ReadDemonstration();

/// The audio at another rate, one or two channels. Slow; any thread.
juce::AudioBuffer<float> AtRate(const Recording& recording, double rateHz);

/// A new file of 32-bit float samples in WAV; one that exists is replaced. Throws
/// std::runtime_error with a sentence for people.
std::unique_ptr<juce::AudioFormatWriter> CreateWriter(const juce::File& file, double rateHz,
                                                      unsigned channelCount);

/// Sends the whole recording through `processor`, which nobody else uses and which has its model,
/// and writes as many frames, without the latency. `report` is told the share that is done, and
/// returns false to stop; then nothing is left of the file. Slow; any thread. Throws
/// std::runtime_error with a sentence for people.
void WriteResult(const Recording& recording, juce::AudioProcessor& processor,
                 const juce::File& file, const std::function<bool(double)>& report);

}  // namespace Orvik::Tesmo::Plugin
