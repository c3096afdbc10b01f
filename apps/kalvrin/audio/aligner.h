#pragma once

#include <cstdint>
#include <limits>
#include <span>

namespace Orvik::Tesmo::Tool {

/// Cuts a stretch out of a stream of interleaved blocks: the frames from `skip` on, `length` of
/// them once that is known.
class Aligner {
public:
  Aligner(std::uint64_t skipFrames, std::size_t channelCount)
      : skip(skipFrames), channels(channelCount) {}

  void SetLength(std::uint64_t frames) { length = frames; }
  std::uint64_t TakenFrames() const { return taken; }

  /// The part of `block` (whole frames) that belongs to the stretch.
  std::span<const float> Take(std::span<const float> block);

private:
  std::uint64_t skip;
  std::size_t channels;
  std::uint64_t length = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t taken = 0;
};

}  // namespace Orvik::Tesmo::Tool
