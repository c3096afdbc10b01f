#pragma once

#include "hosting/evaluation.h"
#include "hosting/evaluation_thread.h"
#include "hosting/frames.h"

#include <cstdint>

namespace Orvik::Tesmo::Plugin {

/// Where evaluations run.
enum class Mode {
  Direct,  ///< in the call that completes a chunk: least latency, uneven load
  /// On a thread of their own while the next chunk comes in: one chunk more latency. Where a call
  /// is so long that a result is due in the call that completes its chunk, that one is direct.
  Spread,
};

/// Frames at the model's rate, as many out as in, in calls of any length. One call at a time on one
/// object; Process neither allocates nor waits, apart from what an evaluation in Mode::Direct does.
class ModelStage {
public:
  /// Slow. Throws what Evaluation throws.
  ModelStage(const Description& description, const ModelBytes& model, unsigned channelCount);

  Evaluation& Gains() { return evaluation; }
  Mode GetMode() const { return mode; }
  std::uint64_t LatencyFrames(Mode inMode) const {
    return evaluation.ChunkFrames() * (inMode == Mode::Spread ? 2 : 1) + evaluation.DelayFrames();
  }
  /// Results that were not there in time; their stretch was silence.
  std::uint64_t LateResults() const { return lateResults; }

  /// All is silence again, and evaluations run in `newMode`. Slow.
  void Restart(Mode newMode);
  /// Changes the mode in mid-stream; false while evaluations are in progress that have to end
  /// first, to be asked again. The output of the next LatencyFrames() frames is no good.
  bool TrySwitch(Mode newMode);

  /// `framesToCome`: how many will follow in the same call of the host; rather too many.
  void Process(const float* const* input, float* const* output, std::size_t frames,
               std::size_t framesToCome);
  /// Sleeps until every result is there, for hosts that do not play in real time: none is late.
  void WaitForResults() const { thread.WaitUntilIdle(); }

private:
  void EndChunk(std::size_t framesToCome);
  void FetchResult();

  Evaluation evaluation;
  Frames collected, playing, ahead;
  std::size_t position = 0;       // in the first two
  bool isAhead = false;           // `ahead` is the result of the last chunk
  std::uint64_t chunk = 0;        // number of the one that is collected
  std::uint64_t firstSpread = 0;  // the first chunk that the worker was asked for
  Mode mode = Mode::Direct;
  bool isDraining = false;  // the worker gets no more, to come to an end
  std::uint64_t lateResults = 0;
  EvaluationThread thread;
};

}  // namespace Orvik::Tesmo::Plugin
