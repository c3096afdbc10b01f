#include "hosting/evaluation.h"

#include <cmath>
#include <span>

namespace Orvik::Tesmo::Hosting {

Evaluation::Evaluation(const Description& description, std::unique_ptr<StreamProcessor> ownedStream,
                       std::size_t channelCount)
    : chunkFrames(description.ChunkFrames()),
      // the library's latency, less the chunk that its rings hold in blocks of a chunk
      delayFrames(LatencyFrames(description.windowLength, description.lookaheadBlocks,
                                description.sequenceSize, chunkFrames) -
                  chunkFrames),
      sequenceSize(description.sequenceSize), channelCount(channelCount),
      stream(std::move(ownedStream)) {}

void Evaluation::Restart() {
  stream->SetSequenceSize(sequenceSize);
}

bool Evaluation::Run(const float* const* input, float* const* output) noexcept {
  bool failed = false;
  try {
    // The first call resets the ring positions and fills the input ring with the chunk; its output
    // is old. The second finds both rings at their end, so it evaluates and returns the chunk's
    // result. What it puts into the input ring is overwritten by the next first call.
    stream->ProcessBlock(input, output, chunkFrames, 0);
    stream->ProcessBlock(input, output, chunkFrames, 1);
  } catch (...) {
    failures.fetch_add(1, std::memory_order_relaxed);
    failure = std::current_exception();
    failed = true;
  }
  for (std::size_t c = 0; c < channelCount; ++c)
    for (float& sample : std::span(output[c], chunkFrames)) {
      if (!failed && std::isfinite(sample)) continue;
      if (!failed) ++nonFinite;
      sample = 0;
    }
  return !failed;
}

}  // namespace Orvik::Tesmo::Hosting
