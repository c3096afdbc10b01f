#pragma once

#include "hosting/description.h"
#include "hosting/frames.h"
#include "hosting/model_bytes.h"
#include "kalvrin/stream_processor.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Plugin {

/// A stream of the library, driven one evaluation at a time: a chunk of frames in, as many out,
/// with no frame waiting inside but those that the windows' overlap and the lookahead need.
class Evaluation {
public:
  /// Slow. Throws std::runtime_error where the library refuses the model, std::bad_alloc.
  Evaluation(const Description& description, const ModelBytes& model, unsigned channelCount);

  std::uint64_t ChunkFrames() const { return chunkFrames; }
  /// From a frame of the input chunk to the same frame of the output chunk.
  std::uint64_t DelayFrames() const { return delayFrames; }

  /// Silence behind and ahead, as if new; the gains stay. Slow, never while Run does its work.
  void Restart();

  /// ChunkFrames() frames. What is not finite in the result comes as silence, and so does the
  /// chunk of an evaluation that fails in the engine. Allocates nothing of ours.
  void Run(const float* const* input, float* const* output) noexcept;

  /// Linear, from 0. While Run does its work, too.
  void SetMasterGain(float gain) { stream->SetMasterGain(gain); }
  void SetRestGain(float gain) { stream->SetAudioClassGain(u"Rest", gain); }
  void SetClassGain(std::size_t index, float gain) {
    stream->SetAudioClassGain(classNames[index].c_str(), gain);
  }

  /// How many evaluations have failed. Any thread.
  std::uint32_t Failures() const { return failures.load(std::memory_order_relaxed); }

private:
  std::uint64_t chunkFrames, delayFrames, sequenceSize;
  unsigned channelCount;
  std::vector<std::u16string> classNames;
  std::unique_ptr<StreamProcessor> stream;
  std::atomic<std::uint32_t> failures = 0;
};

}  // namespace Orvik::Tesmo::Plugin
