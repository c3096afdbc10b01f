#include "juce/standalone/player.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr int channels = 2;
constexpr double fadeSeconds = 0.01;

}  // namespace

Player::Player(juce::AudioProcessor& processor) : processor(processor) {
  disk.startThread();
  startTimer(200);
}

Player::~Player() {
  devices.removeAudioCallback(this);
  devices.closeAudioDevice();
  StopWriting();
  delete coming.exchange(nullptr);
  delete former.exchange(nullptr);
}

void Player::Open(std::unique_ptr<juce::XmlElement> wanted) {
  remembered = std::move(wanted);
  devices.addAudioCallback(this);
  TryOpen();
}

void Player::TryOpen() {
  juce::String preferred = "ALSA";
  for (auto* type : devices.getAvailableDeviceTypes()) {
    type->scanForDevices();
    if (type->getTypeName() == "JACK" && !type->getDeviceNames(false).isEmpty()) preferred = "JACK";
  }
  if (!remembered) devices.setCurrentAudioDeviceType(preferred, true);
  const juce::String error = devices.initialise(channels, channels, remembered.get(), true);
  deviceFault.clear();
  if (!devices.getCurrentAudioDevice())
    deviceFault = "There is no sound: " +
                  (error.isNotEmpty() ? error : juce::String("no sound device was found")) +
                  ". It begins when there is a device; or choose one under Sound.";
}

void Player::audioDeviceAboutToStart(juce::AudioIODevice* device) {
  const double rate = device->getCurrentSampleRate();
  const int frames = std::max(device->getCurrentBufferSizeSamples(), 32);
  block.setSize(channels, frames);
  step = static_cast<float>(1 / (fadeSeconds * rate));
  level = 0;
  processor.setPlayConfigDetails(channels, channels, rate, frames);
  processor.prepareToPlay(rate, frames);
  if (rateHz.exchange(rate) != rate) HandOver();
}

void Player::audioDeviceStopped() {
  processor.releaseResources();
}

void Player::SetRecording(std::shared_ptr<const Recording> newRecording) {
  recording = std::move(newRecording);
  HandOver();
}

/// The recording at the device's rate to the callback.
void Player::HandOver() {
  if (!recording || rateHz <= 0) return;
  auto made = std::make_unique<Loop>();
  made->audio = AtRate(*recording, rateHz);
  delete coming.exchange(made.release());
}

void Player::timerCallback() {
  delete former.exchange(nullptr);
  if (++ticks % 5 == 0) WatchDevice();
}

void Player::WatchDevice() {
  if (auto* device = devices.getCurrentAudioDevice()) {
    deviceFault.clear();
    if (device->isPlaying()) return;
    lost = devices.getAudioDeviceSetup();
    lost.sampleRate = lost.bufferSize = 0;  // what it has when it is back
    devices.closeAudioDevice();
    deviceFault = "The sound device has gone. Sound goes on when it is back; or choose another one "
                  "under Sound.";
  } else if (deviceFault.isNotEmpty() && lost.outputDeviceName.isEmpty()) {
    TryOpen();
  } else if (deviceFault.isNotEmpty()) {
    auto* type = devices.getCurrentDeviceTypeObject();
    type->scanForDevices();
    if (type->getDeviceNames(false).contains(lost.outputDeviceName) &&
        devices.setAudioDeviceSetup(lost, false).isEmpty())
      deviceFault.clear();
  }
}

double Player::PositionSeconds() const {
  return rateHz > 0 ? position / rateHz : 0;
}

void Player::Seek(double seconds) {
  wantedPosition = std::max(0, static_cast<int>(seconds * rateHz));
}

void Player::StartWriting(const juce::File& file) {
  StopWriting();
  if (rateHz <= 0) throw std::runtime_error("There is no sound device, so nothing plays.");
  writer = std::make_unique<juce::AudioFormatWriter::ThreadedWriter>(
      CreateWriter(file, rateHz, channels).release(), disk, static_cast<int>(4 * rateHz));
  hasLost = false;
  writtenFrames = 0;
  active = writer.get();
}

bool Player::StopWriting() {
  active = nullptr;
  while (isInCallback)  // it may still hold the writer
    juce::Thread::sleep(1);
  writer.reset();
  return !hasLost;
}

double Player::WrittenSeconds() const {
  return rateHz > 0 ? static_cast<double>(writtenFrames) / rateHz : 0;
}

/// What plays, while it is silent.
void Player::Change() {
  if (coming.load() && !former.load()) {
    former = loop.release();
    loop.reset(coming.exchange(nullptr));
    position = 0;
  }
  source = wantedSource;
  if (const int wanted = wantedPosition.exchange(-1); wanted >= 0 && loop)
    position = wanted % std::max(1, loop->audio.getNumSamples());
}

void Player::Fill(const float* const* input, int inputCount, int done, int frames) {
  block.clear(0, frames);
  if (source == Source::Live) {
    for (int c = 0; c < channels && inputCount > 0; ++c)
      if (const float* from = input[std::min(c, inputCount - 1)])
        block.copyFrom(c, 0, from + done, frames);
  } else if (loop && loop->audio.getNumSamples() > 0) {
    const auto& audio = loop->audio;
    int place = position;
    for (int filled = 0; filled < frames;) {
      const int n = std::min(frames - filled, audio.getNumSamples() - place);
      for (int c = 0; c < channels; ++c)
        block.copyFrom(c, filled, audio, std::min(c, audio.getNumChannels() - 1), place, n);
      filled += n;
      place = (place + n) % audio.getNumSamples();
    }
    if (level > 0 || isPlaying) position = place;
  }
}

void Player::audioDeviceIOCallbackWithContext(const float* const* input, int inputCount,
                                              float* const* output, int outputCount, int frames,
                                              const juce::AudioIODeviceCallbackContext&) {
  isInCallback = true;
  const juce::ScopedNoDenormals noDenormals;
  // some devices send longer blocks than they have said
  for (int done = 0; done < frames;) {
    const int n = std::min(frames - done, block.getNumSamples());
    const bool mustChange = coming.load() || source != wantedSource || wantedPosition >= 0;
    if (mustChange && level <= 0) Change();
    Fill(input, inputCount, done, n);
    const bool isHeard = !(mustChange && level > 0) && (isPlaying || source == Source::Live);
    const float target = isHeard ? 1.0F : 0.0F;
    for (int i = 0; i < n; ++i) {
      level = target > level ? std::min(target, level + step) : std::max(target, level - step);
      for (int c = 0; c < channels; ++c)
        block.getWritePointer(c)[i] *= level;
    }
    juce::AudioBuffer<float> part(block.getArrayOfWritePointers(), channels, n);
    processor.processBlock(part, noMidi);
    if (outputCount == 1 && output[0]) {  // a loudspeaker for both
      for (int i = 0; i < n; ++i)
        output[0][done + i] = 0.5F * (part.getSample(0, i) + part.getSample(1, i));
    }
    for (int c = 0; outputCount > 1 && c < outputCount; ++c)
      if (output[c]) {
        if (c < channels)
          std::copy_n(part.getReadPointer(c), n, output[c] + done);
        else
          std::fill_n(output[c] + done, n, 0.0F);
      }
    if (auto* to = active.load()) {
      if (!to->write(part.getArrayOfReadPointers(), n)) hasLost = true;
      writtenFrames += n;
    }
    done += n;
  }
  isInCallback = false;
}

}  // namespace Orvik::Tesmo::Plugin
