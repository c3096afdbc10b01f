#include "audio/aligner.h"

#include <algorithm>

namespace Orvik::Tesmo::Tool {

std::span<const float> Aligner::Take(std::span<const float> block) {
  const std::uint64_t frames = block.size() / channels;
  const std::uint64_t skipped = std::min(skip, frames);
  skip -= skipped;
  const std::uint64_t kept = std::min(frames - skipped, length - taken);
  taken += kept;
  return block.subspan(skipped * channels, kept * channels);
}

}  // namespace Orvik::Tesmo::Tool
