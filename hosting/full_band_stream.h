#pragma once

#include "diagnosis/model_facts.h"
#include "hosting/host_stage.h"
#include "kalvrin/stream_processor.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Hosting {

/// A stream whose audio has another sample rate than the model: a stream of the library inside,
/// FullBand around it. With every gain 1 the output is the delayed input at every frequency.
/// Threads and real time as StreamProcessor has them. In ProcessBlock `frames` may be any number
/// and `continuation` means nothing; input that is no finite number counts as silence. Where an
/// evaluation fails its stretch is the input at the gain of Rest; ProcessBlock writes its whole
/// output and then throws what the evaluation has thrown.
class FullBandStream final : public StreamProcessor {
public:
  /// A stream of the library for blocks of as many frames goes in.
  static std::uint64_t InnerBlockFrames(const Diagnosis::ModelFacts& facts,
                                        const Diagnosis::StreamRequest& settled) {
    return facts.layout.GetHopLength() * settled.sequenceSize;
  }

  /// `inner`: a new stream of the sizes `settled`, but for InnerBlockFrames. `rateHz`: of the
  /// audio, within 1/256 and 256 times the model's. Slow. Throws std::runtime_error on another
  /// rate, std::bad_alloc.
  FullBandStream(const Diagnosis::ModelFacts& facts, const Diagnosis::StreamRequest& settled,
                 double rateHz, std::unique_ptr<StreamProcessor> inner);

  /// At the rate of the audio: a whole number at every rate.
  std::uint64_t LatencyFrames() const { return stage.LatencyFrames(Mode::Direct); }
  /// What plays above the model's band; Follow unless it is set. May run while ProcessBlock does.
  void SetHighBand(HighBand choice) { highBand.store(choice, std::memory_order_relaxed); }
  /// Samples of the model that became silence. Never while ProcessBlock runs.
  std::uint64_t NonFiniteSamples() const {
    return stage.Model().GetEvaluation().NonFiniteSamples();
  }

  /// The model's.
  std::int32_t GetSampleRate() override { return Inner().GetSampleRate(); }
  bool SetMasterGain(float gain) override;
  void ResetGains() override;
  bool SetAudioClassGain(const char16_t* name, float gain) override;
  /// These refuse all but the present size.
  void SetSequenceSize(std::uint64_t size) override;
  void SetChannelCount(std::uint64_t count) override;
  void ProcessBlock(const float* const* input, float* const* output, std::uint64_t frames,
                    std::int32_t continuation) override;

private:
  StreamProcessor& Inner() { return stage.Model().GetEvaluation().Stream(); }
  MixGains Gains() const;

  std::uint64_t sequenceSize, channelCount;
  std::vector<std::u16string> names;      // of the classes, then Rest
  std::vector<std::atomic<float>> gains;  // as `names`
  std::atomic<float> masterGain = 0;
  std::atomic<HighBand> highBand = HighBand::Follow;
  HostStage stage;
};

}  // namespace Orvik::Tesmo::Hosting
