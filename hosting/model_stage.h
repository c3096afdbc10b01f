#pragma once

#include "hosting/evaluation.h"
#include "hosting/evaluation_thread.h"
#include "hosting/frames.h"
#include "hosting/high_band.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace Orvik::Tesmo::Hosting {

/// Where evaluations run.
enum class Mode {
  Direct,  ///< in the call that completes a chunk: least latency, uneven load
  /// On a thread of their own while the next chunk comes in: one chunk more latency. Where a call
  /// is so long that a result is due in the call that completes its chunk, that one is direct.
  Spread,
};

/// What comes out of the model, all of the same time.
struct StageOutput {
  StageOutput(std::size_t channelCount, std::size_t frames)
      : mix(channelCount, frames), dry(channelCount, frames), highBandGain(channelCount, frames) {}
  Frames mix, dry, highBandGain;
};

/// Frames at the model's rate, as many out as in, in calls of any length. One call at a time on one
/// object; Process neither allocates nor waits, apart from what an evaluation in Mode::Direct does.
class ModelStage {
public:
  /// `stream`: as Evaluation takes it. `modelRateHz` is the rate of the frames here, `hostRateHz`
  /// that of the audio outside. Without a thread Mode::Spread must not be asked for. Slow.
  ModelStage(const Description& description, std::unique_ptr<StreamProcessor> stream,
             std::size_t channelCount, double modelRateHz, double hostRateHz, bool hasThread);

  Evaluation& GetEvaluation() { return evaluation; }
  const Evaluation& GetEvaluation() const { return evaluation; }
  /// What the evaluation's gains come to, for the dry path: a result that is missing is replaced by
  /// the dry path at the gain of Rest, and `choice` needs them.
  void SetDryGains(const MixGains& newGains, HighBand choice) {
    gains = newGains;
    highBandChoice = choice;
  }

  Mode GetMode() const { return mode; }
  std::uint64_t LatencyFrames(Mode inMode) const {
    return evaluation.ChunkFrames() * (inMode == Mode::Spread ? 2 : 1) + evaluation.DelayFrames();
  }
  /// Results that were not there in time.
  std::uint64_t LateResults() const { return lateResults; }
  /// The greatest time of an evaluation on the thread since the last call, as a share of the time
  /// that its frames last.
  double TakeWorstLoad();

  /// Starts again from silence, with evaluations in `newMode`. Slow.
  void Restart(Mode newMode);
  /// Changes the mode in mid-stream. Returns false while evaluations are in progress that have to
  /// end first: ask again. The output of the next LatencyFrames() frames is not valid.
  bool TrySwitch(Mode newMode);

  /// `framesToCome`: how many will follow in the same call of the host, rather too many. `output`
  /// has room for `frames`.
  void Process(const float* const* input, StageOutput& output, std::size_t frames,
               std::size_t framesToCome);
  /// Sleeps until every result is there, for hosts that do not play in real time: none is late.
  void WaitForResults() const {
    if (thread) thread->WaitUntilIdle();
  }

private:
  void BeginDry();
  void EndChunk(std::size_t framesToCome);
  bool FetchResult();
  void Cover(bool hasResult);

  double modelRateHz;
  Evaluation evaluation;
  Frames collected, ahead;
  StageOutput playing;
  FrameQueue dryDelay;
  HighBandGain highBand;
  HighBand highBandChoice = HighBand::Follow;
  MixGains gains;

  std::size_t position = 0;       // in `collected` and `playing`
  bool isAhead = false;           // `ahead` is the result of the last chunk...
  bool aheadHasResult = false;    // ...where the evaluation did not fail
  std::uint64_t chunk = 0;        // number of the one that is collected
  std::uint64_t firstSpread = 0;  // the first chunk that the worker was asked for
  Mode mode = Mode::Direct;
  bool isDraining = false;  // the worker gets no more, to come to an end
  std::uint64_t lateResults = 0;

  // Cover: while a result is missing, the dry path plays.
  float fadeStep;  // per frame, of a fade from 0 to 1
  bool isCovered = false;
  float resultShare = 1;  // of the result against the dry path
  float stepShare = 0;    // of `step`, which fades out
  // From the dry path at the gain of Rest to what plays, by channel: where the cover began, and at
  // the last frame.
  std::vector<float> step, lastDifference;

  std::optional<EvaluationThread> thread;
};

}  // namespace Orvik::Tesmo::Hosting
