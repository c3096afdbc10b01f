#pragma once

// A model behind the audio of a host, at the host's sample rate and in its blocks.

#include "hosting/description.h"
#include "hosting/host_stage.h"
#include "hosting/model_bytes.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Hosting {

/// Automatic: Spread where the host's blocks are shorter than a hop of the model, else Direct.
enum class ModeWish { Automatic = 0, Direct = 1, Spread = 2 };

/// What the host wants in a call.
struct Controls {
  std::span<const float> classGainsDb;  // as Description::classes
  float restGainDb = 0, masterGainDb = 0;
  HighBand highBand = HighBand::Follow;  // where the host's band is wider than the model's
  bool isBypassed = false;
  ModeWish mode = ModeWish::Automatic;
  bool mayWait = false;  // the host does not play in real time: wait rather than be late
};

/// One stream of audio through a model. Construction and Activate are slow; Process is for the
/// audio thread. One call at a time on one object, on any thread.
class HostedStream {
public:
  /// Host rates in Hz.
  static constexpr double lowestRateHz = 8000, highestRateHz = 192000;
  /// Returns `rateHz`. Throws std::runtime_error where it is out of that range.
  static double CheckedRate(double rateHz);

  /// `usualBlockFrames`: the host's block length where it is known, else 0. Throws
  /// std::runtime_error on a rate out of range and a model that is refused, std::bad_alloc.
  HostedStream(const Description& description, std::shared_ptr<const ModelBytes> model,
               double hostRateHz, unsigned channelCount, std::uint32_t usualBlockFrames = 0);

  /// The stream starts again from silence; what a host does after a stop, at any time, any number
  /// of times. Slow.
  void Activate();

  /// `frames` frames, any number, later by GetLatencyFrames(). `input[c]` and `output[c]` may be
  /// the same array. Input that is no finite number counts as silence. With all gains 1 the output
  /// is the delayed input, at every frequency. In Spread this allocates, locks and waits for
  /// nothing, and makes one system call per evaluation (sem_post); in Direct the inference engine's
  /// evaluation is in it (docs/real-time.md). Bypassed, the output is the input at the same
  /// latency; the model runs on, so that a change is heard at once: a fade of 10 ms. A change of
  /// mode mutes the output for about the latency. Where an evaluation fails or is late, its stretch
  /// is the input at the gain of Rest.
  void Process(const float* const* input, float* const* output, std::uint32_t frames,
               const Controls& controls);

  /// Latency in frames of the host, conversion of the rate included. It changes with the mode only.
  /// Before the first frame it is what `wish` would make it.
  std::uint32_t GetLatencyFrames(ModeWish wish) const;
  Mode GetMode() const { return stage.Model().GetMode(); }
  std::uint64_t LateResults() const { return stage.Model().LateResults(); }
  std::uint32_t FailedEvaluations() const { return stage.Model().GetEvaluation().Failures(); }
  /// The greatest load of the last second: the time of a call, or in Spread of an evaluation, as a
  /// share of the time that its frames last. At 1 audio is lost.
  float Load() const;

private:
  Mode Settle(ModeWish wish, std::uint32_t blockFrames) const;
  void Begin(Mode mode);
  void FollowGains(const Controls& controls);
  void FollowMode(ModeWish wish, std::uint32_t frames);
  void ProcessAll(const float* const* input, float* const* output, std::uint32_t frames,
                  const Controls& controls);
  void MixTo(float* const* output, std::uint32_t begin, std::uint32_t frames, bool isBypassed);
  void CountLoad(double seconds, std::uint32_t frames);

  double hostRateHz;
  std::uint64_t hopLength;
  std::uint32_t usualBlockFrames;
  std::shared_ptr<const ModelBytes> model;  // held for further instances to share
  std::vector<std::u16string> classNames;
  HostStage stage;

  bool hasBegun = false;  // a frame has come since Activate
  std::optional<Mode> automaticMode;
  float fadeStep;
  float wetShare = 1;             // 0: bypassed
  float level = 1;                // 0: muted by a change of mode
  bool isSwitching = false;       // the mode is to change as soon as all is muted
  std::uint64_t mutedFrames = 0;  // left of the muting

  // As set last: the classes, Rest, Master.
  std::vector<float> gainsDb, gains;

  // The worst load in each tenth of the last second, the current tenth in front.
  std::array<float, 11> loads{};
  std::uint32_t loadFrames = 0;  // of the current tenth
};

}  // namespace Orvik::Tesmo::Hosting
