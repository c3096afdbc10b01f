#pragma once

#include "audio/sound_file.h"
#include "hosting/frames.h"
#include "kalvrin/stream_processor.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// The sizes that all streams of a render share.
struct RenderSizes {
  std::size_t channelCount;
  std::size_t blockFrames;
  std::uint64_t skippedFrames;  // left out at the start
  double rateHz;                // of the audio
};

/// One stream and the files that its output goes to.
class RenderStream {
public:
  RenderStream(std::unique_ptr<StreamProcessor> stream, const RenderSizes& sizes);

  /// Call it before the first block.
  void AddWriter(std::unique_ptr<AudioWriter> writer) { writers.push_back(std::move(writer)); }

  /// Takes one block, an array per channel. Throws Refusal where the model fails or the files
  /// cannot be written.
  void Process(const float* const* input);

  /// How many frames are kept, after the skipped ones; call it before they have all come.
  void SetLength(std::uint64_t frames) { length = frames; }

  /// Completes the files.
  void Finish();

  const std::vector<std::unique_ptr<AudioWriter>>& Writers() const { return writers; }
  /// Time spent in the stream so far.
  double ProcessingSeconds() const { return processingSeconds; }

private:
  std::span<const float> Keep(std::span<const float> frames);

  RenderSizes sizes;
  std::unique_ptr<StreamProcessor> stream;
  std::vector<std::unique_ptr<AudioWriter>> writers;
  Hosting::Frames block;
  std::vector<float> interleaved;
  std::uint64_t skip;                                                // frames still to be left out
  std::uint64_t length = std::numeric_limits<std::uint64_t>::max();  // frames to be kept
  std::uint64_t keptFrames = 0;
  std::uint64_t blocks = 0;
  double processingSeconds = 0;
};

}  // namespace Orvik::Tesmo::Tool
