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

namespace Orvik::Tesmo::Hosting {

/// A stream of the library that runs one evaluation per call: a chunk of frames in, as many out.
/// The delay between them is only what the overlap of the windows and the lookahead need.
class Evaluation {
public:
  /// Slow. Throws std::runtime_error where the library refuses the model, std::bad_alloc.
  Evaluation(const Description& description, const ModelBytes& model, unsigned channelCount);

  std::uint64_t ChunkFrames() const { return chunkFrames; }
  /// Frames from a place in the input chunk to the same audio in the output chunks.
  std::uint64_t DelayFrames() const { return delayFrames; }

  /// Starts again from silence, as if new; the gains stay. Slow; never while Run runs.
  void Restart();

  /// Takes and writes ChunkFrames() frames. Samples of the result that are not finite become
  /// silence. Returns false, and silence, where the evaluation fails in the engine. Allocates
  /// nothing of ours.
  bool Run(const float* const* input, float* const* output) noexcept;

  /// Linear, from 0. May run while Run does.
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

}  // namespace Orvik::Tesmo::Hosting
