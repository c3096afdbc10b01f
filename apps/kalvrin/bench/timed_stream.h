#pragma once

#include "diagnosis/model_facts.h"
#include "hosting/frames.h"
#include "kalvrin/stream_processor.h"

#include <memory>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// How long blocks took, in seconds each, in the order in which they ran.
struct BlockTimes {
  std::vector<float> evaluating;  ///< blocks in which the model ran, once or more
  std::vector<float> others;      ///< blocks that only moved frames
  /// The same blocks as `evaluating`, but only the time that the thread was on a processor.
  std::vector<float> onProcessor;

  std::uint64_t Count() const { return evaluating.size() + others.size(); }
  /// Of all blocks together.
  double Sum() const;
};

/// The smallest of the values that is at least as large as a share `p` (0..1) of them. Sorts them.
/// 0 for no values.
double Quantile(std::vector<float>& values, double p);

/// Feeds noise to a stream and measures how long each block takes.
class TimedStream {
public:
  /// `settled` are the sizes that `stream` was made with. Runs a few evaluations that are not
  /// measured; throws what they fail with.
  TimedStream(std::unique_ptr<StreamProcessor> stream, const Diagnosis::StreamRequest& settled,
              std::uint64_t hopLength);

  /// Runs for `seconds` of processing and at least one evaluation, but at most `blocks` blocks.
  /// Throws Interrupted, and Refusal where the model fails.
  BlockTimes Run(std::uint64_t blocks, double seconds);

private:
  struct Times {
    double passed, onProcessor;
  };
  Times TimeBlock();
  bool NextBlockEvaluates() const;

  std::unique_ptr<StreamProcessor> stream;
  std::uint64_t blockFrames, capacityFrames;
  std::uint64_t given = 0;  ///< frames so far
  std::vector<float> noise;
  std::vector<const float*> inputs;
  Hosting::Frames outputs;
};

}  // namespace Orvik::Tesmo::Tool
