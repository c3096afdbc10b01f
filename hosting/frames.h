#pragma once

// Audio in memory: one array of floats per channel.

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Orvik::Tesmo::Hosting {

/// `frames` frames of silence at first, never resized.
class Frames {
public:
  Frames(std::size_t channelCount, std::size_t frames)
      : length(frames), samples(channelCount * frames) {
    for (std::size_t c = 0; c < channelCount; ++c)
      channels.push_back(samples.data() + c * frames);
  }
  Frames(const Frames&) = delete;
  Frames& operator=(const Frames&) = delete;
  Frames(Frames&&) = default;
  Frames& operator=(Frames&&) = default;

  std::size_t Length() const { return length; }
  std::size_t ChannelCount() const { return channels.size(); }
  float* const* Channels() { return channels.data(); }
  const float* const* Channels() const { return channels.data(); }
  float* operator[](std::size_t channel) { return channels[channel]; }
  const float* operator[](std::size_t channel) const { return channels[channel]; }
  void Clear() { std::fill(samples.begin(), samples.end(), 0.0F); }

private:
  std::size_t length;
  std::vector<float> samples;
  std::vector<float*> channels;
};

/// First in, first out, with room for `capacity` frames. Nothing here allocates after construction.
class FrameQueue {
public:
  FrameQueue(std::size_t channelCount, std::size_t capacity) : ring(channelCount, capacity) {}

  std::size_t Count() const { return count; }
  void Clear() { count = 0; }

  /// The caller makes sure that there is room.
  void Push(const float* const* frames, std::size_t n);
  void PushSilence(std::size_t n);
  /// Where fewer frames are there, silence follows them.
  void Pop(float* const* frames, std::size_t n);

private:
  /// `n` frames that begin `begin` frames after the oldest are one piece of the ring or, around its
  /// end, two. Calls `move(place in the ring, offset from the first frame, length)` for each.
  template <class Move>
  void ForPieces(std::size_t begin, std::size_t n, Move move) {
    const std::size_t place = (first + begin) % ring.Length();
    const std::size_t head = std::min(n, ring.Length() - place);
    move(place, std::size_t{0}, head);
    move(std::size_t{0}, head, n - head);
  }

  Frames ring;
  std::size_t first = 0, count = 0;
};

inline void FrameQueue::Push(const float* const* frames, std::size_t n) {
  ForPieces(count, n, [&](std::size_t place, std::size_t offset, std::size_t length) {
    for (std::size_t c = 0; c < ring.ChannelCount(); ++c)
      std::copy_n(frames[c] + offset, length, ring[c] + place);
  });
  count += n;
}

inline void FrameQueue::PushSilence(std::size_t n) {
  ForPieces(count, n, [&](std::size_t place, std::size_t, std::size_t length) {
    for (std::size_t c = 0; c < ring.ChannelCount(); ++c)
      std::fill_n(ring[c] + place, length, 0.0F);
  });
  count += n;
}

inline void FrameQueue::Pop(float* const* frames, std::size_t n) {
  const std::size_t present = std::min(n, count);
  ForPieces(0, present, [&](std::size_t place, std::size_t offset, std::size_t length) {
    for (std::size_t c = 0; c < ring.ChannelCount(); ++c)
      std::copy_n(ring[c] + place, length, frames[c] + offset);
  });
  for (std::size_t c = 0; c < ring.ChannelCount(); ++c)
    std::fill(frames[c] + present, frames[c] + n, 0.0F);
  first = (first + present) % ring.Length();
  count -= present;
}

}  // namespace Orvik::Tesmo::Hosting
