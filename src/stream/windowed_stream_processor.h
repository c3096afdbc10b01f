#pragma once

#include "core/kalvrin.h"
#include "kalvrin/stream_processor.h"
#include "runtime/float_array.h"
#include "stream/overlap_add_stage.h"

#include <cstdint>
#include <memory>

namespace Orvik::Tesmo {

/// The one implementation of StreamProcessor: turns the host's rhythm (planar blocks of any length
/// up to `blockFrames`) into the model's (`capacityFrames` interleaved frames at a time) with a
/// ring on either side of the overlap-add stage.
///
/// ProcessBlock allocates nothing, takes no lock and makes no system call. An evaluation runs
/// inside the call that needs its output, so one call in capacityFrames / blockFrames carries it
/// whole.
class WindowedStreamProcessor final : public StreamProcessor {
public:
  /// `sequenceSize` and `channelCount` are those that `core` and `overlapAdd` have. Throws
  /// ContractException on a size of 0 or beyond MaxFloats, std::bad_alloc, and what `core`
  /// throws when asked for its sample rate.
  WindowedStreamProcessor(std::unique_ptr<Dnn::Kalvrin> core,
                          std::unique_ptr<OverlapAddStage> overlapAdd, std::uint64_t sequenceSize,
                          std::uint64_t channelCount, std::uint64_t blockFrames);
  ~WindowedStreamProcessor() override;

  std::int32_t GetSampleRate() override;
  bool SetMasterGain(float gain) override;
  void ResetGains() override;
  bool SetAudioClassGain(const char16_t* name, float gain) override;
  void SetSequenceSize(std::uint64_t size) override;
  void SetChannelCount(std::uint64_t count) override;
  void ProcessBlock(const float* const* input, float* const* output, std::uint64_t frames,
                    std::int32_t continuation) override;

  /// For OverlapAddStage::Run: one evaluation of the core over `sequenceSize` interleaved windows.
  void Evaluate(const float* input, float* output);

private:
  /// The four arrays that the sizes decide. The staging arrays hold a block or a ring, whichever is
  /// longer.
  struct Arrays {
    FloatArray inputStaging, outputStaging, inputRing, outputRing;
  };

  std::uint64_t CapacityFrames() const;
  void LineUpCursors();
  Arrays MakeArrays(std::uint64_t newSequenceSize, std::uint64_t newChannelCount) const;
  /// `changeCore`: the operation of the core that brings it from the present sizes to the new ones.
  void Resize(std::uint64_t newSequenceSize, std::uint64_t newChannelCount,
              bool (Dnn::Kalvrin::*changeCore)(std::uint64_t), std::uint64_t changedTo);

  std::uint64_t sequenceSize;
  std::uint64_t channelCount;
  std::uint64_t blockFrames;
  std::unique_ptr<Dnn::Kalvrin> core;
  std::unique_ptr<OverlapAddStage> overlapAdd;
  std::int32_t sampleRate;
  std::uint64_t readCursor;   ///< frames of the output ring already handed out
  std::uint64_t writeCursor;  ///< frames of the input ring already filled
  Arrays arrays;
};

}  // namespace Orvik::Tesmo
