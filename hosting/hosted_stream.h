#pragma once

// What every plugin does, without any plugin interface.

#include "hosting/description.h"
#include "hosting/frames.h"
#include "hosting/model_bytes.h"
#include "hosting/model_stage.h"
#include "hosting/rate_converter.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace Orvik::Tesmo::Plugin {

/// Automatic: Spread where the host's blocks are shorter than a hop of the model, else Direct.
enum class ModeWish { Automatic = 0, Direct = 1, Spread = 2 };

/// Where the host's knobs stand in a call.
struct Controls {
  std::span<const float> classGainsDb;  // as Description::classes
  float restGainDb = 0, masterGainDb = 0;
  bool isBypassed = false;
  ModeWish mode = ModeWish::Automatic;
  bool mayWait = false;  // the host does not play in real time: wait rather than be late
};

/// One instance of a plugin. Construction and Activate are slow; Process is for the audio thread.
/// One call at a time on one object, on any thread.
class HostedStream {
public:
  /// Host rates in Hz.
  static constexpr double lowestRateHz = 8000, highestRateHz = 192000;

  /// `usualBlockFrames`: the host's block length where it tells one, else 0. Throws
  /// std::runtime_error on a rate out of range and a model that is refused, std::bad_alloc.
  HostedStream(const Description& description, std::shared_ptr<const ModelBytes> model,
               double hostRateHz, unsigned channelCount, std::uint32_t usualBlockFrames = 0);

  /// The stream starts again from silence; what a host does after a stop, at any time, any number
  /// of times. Slow.
  void Activate();

  /// `frames` frames, any number, later by GetLatencyFrames(). `input[c]` and `output[c]` may be
  /// the same array. What is no finite number in the input counts as silence. In Spread this
  /// allocates, locks and waits for nothing, and makes one system call an evaluation (sem_post); in
  /// Direct the inference engine's evaluation is in it (docs/real-time.md). Bypassed, the output is
  /// the input at the same latency; the model runs on, so that a change is heard at once: a fade of
  /// 10 ms. A change of mode mutes the output for about the latency.
  void Process(const float* const* input, float* const* output, std::uint32_t frames,
               const Controls& controls);

  /// Latency at the host's rate, conversion of the rate counted in, rounded to whole frames. It
  /// changes with the mode only. Until the first frame has come it is what `wish` would make it.
  std::uint32_t GetLatencyFrames(ModeWish wish) const;
  /// What the rounding left out: from -0.5 to 0.5 of a frame, 0 where nothing is converted.
  double GetLatencyRemainder() const;
  Mode GetMode() const { return stage.GetMode(); }
  std::uint64_t LateResults() const { return stage.LateResults(); }
  std::uint32_t FailedEvaluations() { return stage.Gains().Failures(); }

private:
  /// Host frames that go through the whole chain at once.
  static constexpr std::uint32_t sliceFrames = 256;

  Mode Settle(ModeWish wish, std::uint32_t blockFrames) const;
  double ExactLatency(Mode mode) const;
  std::uint32_t RoundedLatency(Mode mode) const;
  void Begin(Mode mode);
  void FollowGains(const Controls& controls);
  void FollowMode(ModeWish wish, std::uint32_t frames);
  void ProcessSlice(std::uint32_t frames, std::uint32_t framesToCome);
  void MixTo(float* const* output, std::uint32_t begin, std::uint32_t frames, bool isBypassed);

  double hostRateHz, modelRateHz;
  std::uint64_t hopLength;
  std::uint32_t usualBlockFrames;
  std::shared_ptr<const ModelBytes> model;  // held for further instances to share
  ModelStage stage;
  std::optional<RateConverter> toModel, toHost;
  std::uint32_t cushionFrames = 0;  // silence before the converted frames, so that they never lack
  Frames dry, wet, atModelRate, fromModel, converted;
  FrameQueue convertedQueue, dryDelay;

  bool hasBegun = false;  // a frame has come since Activate
  std::optional<Mode> automaticMode;
  float fadeStep;
  float wetness = 1;              // 0: bypassed
  float level = 1;                // 0: muted by a change of mode
  bool isSwitching = false;       // the mode is to change as soon as all is muted
  std::uint64_t mutedFrames = 0;  // left of the muting
  std::vector<float> gainsDb;     // as set: the classes, Rest, Master
};

}  // namespace Orvik::Tesmo::Plugin
