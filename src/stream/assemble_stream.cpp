#include "stream/assemble_stream.h"

#include "core/kalvrin.h"
#include "stream/overlap_add_stage.h"
#include "stream/windowed_stream_processor.h"

#include <utility>

namespace Orvik::Tesmo {

std::unique_ptr<StreamProcessor> AssembleStream(Platform::Runtime& runtime, const void* modelData,
                                                std::uint64_t modelSize, std::uint64_t sequenceSize,
                                                std::uint64_t channelCount,
                                                std::uint64_t blockFrames,
                                                std::shared_ptr<const void> keeps) {
  // Refused here, where it costs nothing, rather than after the model has been loaded.
  if (!modelData) throw ContractException("No model");
  if (!BufferFits({channelCount, blockFrames}))
    throw ContractException("Stream sizes out of range");
  auto core =
      std::make_unique<Dnn::Kalvrin>(runtime, modelData, modelSize, sequenceSize, channelCount);
  // From here on the size that the core settled on: a 0 from the host stands for the model's own.
  const std::uint64_t effectiveSize = core->GetSequenceSize();
  auto stage = std::make_unique<OverlapAddStage>(core->GetHopLength(), effectiveSize, channelCount,
                                                 core->IsSpectral());
  return std::make_unique<WindowedStreamProcessor>(std::move(core), std::move(stage), effectiveSize,
                                                   channelCount, blockFrames, std::move(keeps));
}

}  // namespace Orvik::Tesmo
