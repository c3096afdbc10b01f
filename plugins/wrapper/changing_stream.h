#pragma once

#include "hosting/frames.h"
#include "wrapper/asked_model.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Orvik::Tesmo::Plugin {

/// Nothing to play: the input comes out as it went in.
std::unique_ptr<AskedModel> NoModel();

/// The models of one plugin, one after the other. A change goes without a gap: the new model runs
/// unheard for its latency beside the old one, and the two are then cross-faded over 50 ms.
///
/// Process, ChangeTo and TakeFormer are for the audio thread; they allocate nothing, free nothing
/// and wait for nothing of their own (HostedStream::Process has its own promise). Activate is slow.
/// One call at a time on one object.
class ChangingStream {
public:
  /// `first` plays from the start. `longestBlock`: frames that are processed at once during a
  /// change; longer blocks are cut.
  ChangingStream(std::unique_ptr<AskedModel> first, double hostRateHz, unsigned channelCount,
                 std::uint32_t longestBlock);

  /// Starts again from silence, with the last model that was asked for.
  void Activate();

  /// As HostedStream::Process.
  void Process(const float* const* input, float* const* output, std::uint32_t frames,
               const Hosting::Controls& controls);

  /// `asked` is not refused. Before the first frame since the start it takes the place of the model
  /// that is there, at once. Returns a model that will not play any more, or null.
  std::unique_ptr<AskedModel> ChangeTo(std::unique_ptr<AskedModel> asked);
  /// The model that has been faded out, or null. The next change waits until it has been taken.
  std::unique_ptr<AskedModel> TakeFormer() { return std::move(former); }

  /// The one that is heard, or is being faded in.
  const AskedModel& Heard() const { return isFading ? *coming : *current; }
  std::uint32_t GetLatencyFrames(Hosting::ModeWish wish) const;
  std::uint64_t LateResults() const;
  float Load() const;

private:
  void Begin();
  std::uint32_t FramesOfPhase(Hosting::ModeWish wish) const;
  void EndPhase();
  void Play(AskedModel& model, float* const* to, std::uint32_t frames,
            const Hosting::Controls& controls);
  void FadeIn(std::uint32_t frames);

  double hostRateHz;
  std::unique_ptr<AskedModel> current, coming, waiting, former;
  bool hasPlayed = false;        // a frame since Activate
  bool isFading = false;         // `coming` is heard; else it still runs unheard
  std::uint32_t framesDone = 0;  // of that
  std::uint32_t fadeFrames;
  Hosting::Frames fromComing;
  std::vector<const float*> inputs;  // at the place where a call has come to
  std::vector<float*> outputs;
};

}  // namespace Orvik::Tesmo::Plugin
