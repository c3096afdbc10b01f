#pragma once

#include "hosting/description.h"
#include "hosting/frames.h"
#include "hosting/full_band.h"
#include "hosting/model_stage.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace Orvik::Tesmo::Hosting {

/// A ModelStage in the audio of a host: at the host's sample rate, beside a dry path of the same
/// latency. One call at a time on one object; Process allocates nothing and waits for nothing,
/// apart from what ModelStage::Process does.
class HostStage {
public:
  /// Host frames of a call of Process at most.
  static constexpr std::uint32_t sliceFrames = 256;

  /// `stream` and `hasThread`: as ModelStage takes them. Of `description` the sizes and the rate
  /// count. `hostRateHz`: within 1/256 and 256 times the model's. Slow. Throws std::runtime_error
  /// on another rate, std::bad_alloc.
  HostStage(const Description& description, std::unique_ptr<StreamProcessor> stream,
            std::size_t channelCount, double hostRateHz, bool hasThread);

  ModelStage& Model() { return model; }
  const ModelStage& Model() const { return model; }
  double ModelRateHz() const { return modelRateHz; }
  /// Host frames from the input to the output, conversion of the rate included.
  std::uint32_t LatencyFrames(Mode mode) const;

  /// After the model stage has started again or switched its mode: puts all else in step with it,
  /// silent.
  void Begin();

  /// Takes `frames` frames from `begin` on of each channel, with silence for what is no finite
  /// number. `framesToCome`: how many follow in the same call of the host.
  void Process(const float* const* input, std::size_t begin, std::uint32_t frames,
               std::size_t framesToCome);
  /// After Process: the model's mix in the host's whole band, and the input of the same time.
  const Frames& Wet() const { return wet; }
  const Frames& Dry() const { return dry; }

private:
  double modelRateHz;
  ModelStage model;
  std::optional<FullBand> fullBand;  // where the rates differ
  Frames dry, wet, atModelRate;
  StageOutput fromModel;
  FrameQueue dryDelay;
};

}  // namespace Orvik::Tesmo::Hosting
