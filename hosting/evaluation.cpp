#include "hosting/evaluation.h"

#include "runtime/text.h"

#include <algorithm>
#include <cmath>
#include <span>
#include <stdexcept>

namespace Orvik::Tesmo::Hosting {

Evaluation::Evaluation(const Description& description, const ModelBytes& model,
                       unsigned channelCount)
    : chunkFrames(description.ChunkFrames()),
      // the library's latency, less the chunk that its rings hold in blocks of a chunk
      delayFrames(LatencyFrames(description.windowLength, description.lookaheadBlocks,
                                description.sequenceSize, chunkFrames) -
                  chunkFrames),
      sequenceSize(description.sequenceSize), channelCount(channelCount),
      stream(CreateStreamProcessor(model.data(), model.size(), sequenceSize, channelCount,
                                   chunkFrames)) {
  if (!stream)
    throw std::runtime_error("the library refuses the model of " + description.name +
                             "; 'kalvrin check' on it says why");
  stream->ResetGains();
  for (const std::string& name : description.classes) {
    classNames.push_back(Dnn::Utf16FromUtf8(name));
    if (!stream->SetAudioClassGain(classNames.back().c_str(), 1))
      throw std::runtime_error("the model of " + description.name + " has no class " + name);
  }
}

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
    failed = true;
  }
  for (unsigned c = 0; c < channelCount; ++c)
    for (float& sample : std::span(output[c], chunkFrames))
      if (failed || !std::isfinite(sample)) sample = 0;
  return !failed;
}

}  // namespace Orvik::Tesmo::Hosting
