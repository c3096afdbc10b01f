#pragma once

#include "kalvrin/stream_processor.h"

#include <cstdint>
#include <vector>

namespace TestSupport {

/// What a new `stream` gives for `channels` in blocks of `blockFrames`, in time with them.
inline std::vector<std::vector<float>> Rendered(Orvik::Tesmo::StreamProcessor& stream,
                                                std::uint64_t latencyFrames,
                                                std::uint64_t blockFrames,
                                                std::vector<std::vector<float>> channels) {
  const std::uint64_t frames = channels.front().size();
  const std::uint64_t blocks = (frames + latencyFrames) / blockFrames + 1;
  std::vector<float*> block;
  for (auto& channel : channels) {
    channel.resize(blocks * blockFrames);
    block.push_back(channel.data());
  }
  for (std::uint64_t b = 0; b < blocks; ++b) {
    stream.ProcessBlock(block.data(), block.data(), blockFrames, 1);
    for (float*& place : block)
      place += blockFrames;
  }
  for (auto& channel : channels) {
    channel.erase(channel.begin(), channel.begin() + static_cast<std::ptrdiff_t>(latencyFrames));
    channel.resize(frames);
  }
  return channels;
}

}  // namespace TestSupport
