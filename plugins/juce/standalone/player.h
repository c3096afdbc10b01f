#pragma once

#include "juce/standalone/recording.h"

#include <juce_audio_devices/juce_audio_devices.h>

#include <atomic>
#include <memory>
#include <vector>

namespace Orvik::Tesmo::Plugin {

/// What comes in at the sound device, or a recording again and again, through a processor to the
/// sound device. Every change of what plays fades for 10 ms.
///
/// All is for the message thread, but for JUCE's callback, which allocates nothing, locks nothing
/// and waits for nothing.
class Player final : private juce::AudioIODeviceCallback, private juce::Timer {
public:
  enum class Source { Loop, Live };

  /// `processor` outlives the object and takes two channels.
  explicit Player(juce::AudioProcessor& processor);
  ~Player() override;

  /// Opens what `wanted` (a state of Devices(), or null) names, where that is there, else JACK
  /// where a server runs, else the first that is.
  void Open(std::unique_ptr<juce::XmlElement> wanted);
  juce::AudioDeviceManager& Devices() { return devices; }
  /// Why there is no sound, in sentences for people; empty: there is. A device that is not there
  /// yet or goes away, as that of a JACK server that ends, is opened when it is there.
  const juce::String& DeviceFault() const { return deviceFault; }

  void SetSource(Source newSource) { wantedSource = newSource; }
  Source GetSource() const { return wantedSource; }
  void SetPlaying(bool plays) { isPlaying = plays; }
  bool IsPlaying() const { return isPlaying; }

  /// Slow where the rate of the recording is not the device's.
  void SetRecording(std::shared_ptr<const Recording> newRecording);
  const Recording* GetRecording() const { return recording.get(); }
  std::shared_ptr<const Recording> GetShared() const { return recording; }
  double PositionSeconds() const;
  void Seek(double seconds);

  /// From now on what is heard is written to `file` too. Throws std::runtime_error with a sentence
  /// for people.
  void StartWriting(const juce::File& file);
  /// Returns false where audio was lost because the disk was too slow.
  bool StopWriting();
  bool IsWriting() const { return writer != nullptr; }
  double WrittenSeconds() const;

private:
  struct Loop {
    juce::AudioBuffer<float> audio;
  };

  void audioDeviceAboutToStart(juce::AudioIODevice* device) override;
  void audioDeviceStopped() override;
  void audioDeviceIOCallbackWithContext(const float* const* input, int inputCount,
                                        float* const* output, int outputCount, int frames,
                                        const juce::AudioIODeviceCallbackContext&) override;
  void timerCallback() override;
  void HandOver();
  void TryOpen();
  void WatchDevice();
  void Change();
  void Fill(const float* const* input, int inputCount, int done, int frames);

  juce::AudioProcessor& processor;
  juce::AudioDeviceManager devices;
  juce::TimeSliceThread disk{"kalvrin disk"};
  std::unique_ptr<juce::XmlElement> remembered;
  juce::AudioDeviceManager::AudioDeviceSetup lost;  // without an output: no device was there yet
  juce::String deviceFault;
  int ticks = 0;
  std::shared_ptr<const Recording> recording;
  std::unique_ptr<juce::AudioFormatWriter::ThreadedWriter> writer;

  std::atomic<double> rateHz = 0;
  std::atomic<Source> wantedSource = Source::Loop;
  std::atomic<bool> isPlaying = false, hasLost = false;
  std::atomic<Loop*> coming = nullptr, former = nullptr;  // to and from the callback
  std::atomic<int> wantedPosition = -1, position = 0;
  std::atomic<juce::AudioFormatWriter::ThreadedWriter*> active = nullptr;
  std::atomic<bool> isInCallback = false;
  std::atomic<juce::int64> writtenFrames = 0;

  // Of the callback:
  std::unique_ptr<Loop> loop;
  Source source = Source::Loop;
  float level = 0, step = 0;
  juce::AudioBuffer<float> block;
  juce::MidiBuffer noMidi;
};

}  // namespace Orvik::Tesmo::Plugin
