#pragma once

#include "kalvrin/stream_processor.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// How a run of paced streams went. A block is late when it is done more than half of its own time
/// after it was due: the other half is the host's.
struct Pace {
  std::size_t streams = 0;
  std::uint64_t blocks = 0, late = 0;
  double rare = 0, worst = 0;        ///< 99.99 % of the blocks, all blocks: in halves of a block
  double processors = 0;             ///< how many were busy with it, on average
  double firstMiB = 0, lastMiB = 0;  ///< memory of the process after a tenth of the run, at its end
  bool isGivenUp = false;            ///< ended early, hopelessly late

  /// 99.99 % of the blocks were in time.
  bool Holds() const { return !isGivenUp && rare <= 1; }
};

/// Many streams as calls in one process: each gets a block whenever the block's time has passed, at
/// a phase of its own.
class PacedStreams {
public:
  /// `make` returns a new stream over blocks of `blockFrames` frames on `channelCount` channels.
  /// `blocksPerEvaluation`: after how many blocks the model runs again.
  PacedStreams(std::function<std::unique_ptr<StreamProcessor>()> make, std::size_t channelCount,
               std::size_t blockFrames, std::size_t blocksPerEvaluation, double rateHz);

  /// Makes streams until there are `count`. Returns the seconds that each new one took. Throws what
  /// `make` throws.
  std::vector<float> Grow(std::size_t count);

  /// The first `count` streams on `threads` threads for `seconds`; each thread has streams of its
  /// own and does what is due first. Throws Interrupted, and Refusal where the model fails.
  Pace Run(std::size_t count, std::size_t threads, double seconds);

private:
  class Runner;

  struct Stream {
    std::unique_ptr<StreamProcessor> processor;
    std::size_t position;  ///< in the noise
  };
  void Process(Stream& stream, std::vector<const float*>& inputs, float* const* outputs) const;

  std::function<std::unique_ptr<StreamProcessor>()> make;
  std::size_t channelCount, blockFrames, blocksPerEvaluation;
  double blockSeconds;
  std::vector<float> noise;
  std::vector<Stream> streams;
};

/// Memory of this process that is in RAM.
double ResidentMiB();

}  // namespace Orvik::Tesmo::Tool
