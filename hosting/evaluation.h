#pragma once

#include "hosting/description.h"
#include "hosting/frames.h"
#include "kalvrin/stream_processor.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <utility>

namespace Orvik::Tesmo::Hosting {

/// A stream of the library that runs one evaluation per call: a chunk of frames in, as many out.
/// The delay between them is only what the overlap of the windows and the lookahead need.
class Evaluation {
public:
  /// `stream`: a new one, for blocks of description.ChunkFrames().
  Evaluation(const Description& description, std::unique_ptr<StreamProcessor> stream,
             std::size_t channelCount);

  std::uint64_t ChunkFrames() const { return chunkFrames; }
  /// Frames from a place in the input chunk to the same audio in the output chunks.
  std::uint64_t DelayFrames() const { return delayFrames; }

  /// Starts again from silence, as if new; the gains stay. Slow; never while Run runs.
  void Restart();

  /// Takes and writes ChunkFrames() frames. Samples of the result that are not finite become
  /// silence and are counted. Returns false, and silence, where the evaluation fails in the engine.
  /// Allocates nothing of ours.
  bool Run(const float* const* input, float* const* output) noexcept;

  /// For its gains, which may change while Run runs.
  StreamProcessor& Stream() { return *stream; }

  /// How many evaluations have failed. Any thread.
  std::uint32_t Failures() const { return failures.load(std::memory_order_relaxed); }
  /// What the last of them has thrown since the last call, else null; never while Run runs.
  std::exception_ptr TakeFailure() { return std::exchange(failure, nullptr); }
  /// Never while Run runs.
  std::uint64_t NonFiniteSamples() const { return nonFinite; }

private:
  std::uint64_t chunkFrames, delayFrames, sequenceSize;
  std::size_t channelCount;
  std::unique_ptr<StreamProcessor> stream;
  std::atomic<std::uint32_t> failures = 0;
  std::exception_ptr failure;
  std::uint64_t nonFinite = 0;
};

}  // namespace Orvik::Tesmo::Hosting
