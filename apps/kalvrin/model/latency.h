#pragma once

#include <cstdint>

namespace Orvik::Tesmo::Tool {

/// The sizes from which the latency of a stream follows.
struct StreamSizes {
  std::uint64_t hopLength = 1;     // frames, half a window
  std::uint64_t sequenceSize = 1;  // windows per evaluation
  std::uint64_t lookahead = 0;     // windows
  std::uint64_t blockFrames = 1;   // frames of a ProcessBlock call
};

/// Frames from a sample in to the same sample out, as stream_processor.h has it.
constexpr std::uint64_t LatencyFrames(const StreamSizes& sizes) {
  const std::uint64_t capacity = sizes.hopLength * sizes.sequenceSize;
  const bool prefilled = sizes.blockFrames < capacity && capacity % sizes.blockFrames == 0;
  return capacity - (prefilled ? sizes.blockFrames : 0) + sizes.hopLength * (1 + sizes.lookahead);
}

}  // namespace Orvik::Tesmo::Tool
