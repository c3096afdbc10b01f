#pragma once

// What the audio thread leaves for a window to read: levels, and the samples that were played. One
// thread writes and one reads; nothing here locks, waits or, after construction, allocates.

#include "hosting/frames.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>

namespace Orvik::Tesmo::Plugin {

/// Linear; full scale is 1.
struct Level {
  float peak = 0, rms = 0;
};

class LevelMeter {
public:
  /// Of the channels together: the greatest peak, the mean power. Values that are no number count
  /// as silence.
  void Add(const float* const* audio, std::size_t channelCount, std::size_t frames, double rateHz) {
    if (frames == 0 || channelCount == 0) return;
    float highest = 0;
    double sum = 0;
    for (std::size_t c = 0; c < channelCount; ++c)
      for (std::size_t i = 0; i < frames; ++i) {
        const float size = std::fabs(audio[c][i]);
        if (!std::isfinite(size)) continue;
        highest = std::max(highest, size);
        sum += static_cast<double>(size) * size;
      }
    // only the reader may make it less, by taking it
    if (highest > peak.load(std::memory_order_relaxed))
      peak.store(highest, std::memory_order_relaxed);
    constexpr double rmsSeconds = 0.3;
    const double share = 1 - std::exp(-static_cast<double>(frames) / (rmsSeconds * rateHz));
    const double before = power.load(std::memory_order_relaxed);
    const double now = sum / static_cast<double>(frames * channelCount);
    power.store(static_cast<float>(before + share * (now - before)), std::memory_order_relaxed);
  }

  /// The peak since the last call, and the RMS of about the last 0.3 s.
  Level Take() {
    return {peak.exchange(0, std::memory_order_relaxed),
            std::sqrt(power.load(std::memory_order_relaxed))};
  }
  void Clear() {
    peak.store(0, std::memory_order_relaxed);
    power.store(0, std::memory_order_relaxed);
  }

private:
  std::atomic<float> peak = 0, power = 0;
};

/// Audio from one thread to another.
class AudioPipe {
public:
  AudioPipe(std::size_t channelCount, std::size_t capacity) : ring(channelCount, capacity) {}

  // The writer; there has to be room:

  bool HasRoom(std::size_t frames) const {
    return frames <= ring.Length() - (written.load(std::memory_order_relaxed) -
                                      read.load(std::memory_order_acquire));
  }
  void Push(const float* const* audio, std::size_t frames) {
    const std::size_t begin = written.load(std::memory_order_relaxed);
    for (std::size_t c = 0; c < ring.ChannelCount(); ++c)
      for (std::size_t i = 0; i < frames; ++i)
        ring[c][(begin + i) % ring.Length()] = audio[c][i];
    written.store(begin + frames, std::memory_order_release);
  }
  /// The mean of all channels, to the first.
  void PushMean(const float* const* audio, std::size_t channelCount, std::size_t frames) {
    const std::size_t begin = written.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < frames; ++i) {
      float sum = 0;
      for (std::size_t c = 0; c < channelCount; ++c)
        sum += audio[c][i];
      ring[0][(begin + i) % ring.Length()] = sum / static_cast<float>(channelCount);
    }
    written.store(begin + frames, std::memory_order_release);
  }

  // The reader:

  /// Returns how many frames it has copied, `most` at most.
  std::size_t Pop(float* const* to, std::size_t most) {
    const std::size_t begin = read.load(std::memory_order_relaxed);
    const std::size_t n = std::min(most, written.load(std::memory_order_acquire) - begin);
    for (std::size_t c = 0; c < ring.ChannelCount(); ++c)
      for (std::size_t i = 0; i < n; ++i)
        to[c][i] = ring[c][(begin + i) % ring.Length()];
    read.store(begin + n, std::memory_order_release);
    return n;
  }
  void DropAll() { read.store(written.load(std::memory_order_acquire), std::memory_order_release); }

private:
  Hosting::Frames ring;
  std::atomic<std::size_t> written = 0, read = 0;  // frames since the beginning
};

}  // namespace Orvik::Tesmo::Plugin
