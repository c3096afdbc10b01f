#pragma once

#include "kalvrin/stream_processor.h"
#include "platform/platform.h"

#include <cstdint>
#include <memory>

namespace Orvik::Tesmo {

/// Builds the objects of one stream: the core, the overlap-add stage, the object that the host
/// holds. `runtime` outlives the result, which holds `keeps` to that end (null: the caller sees to
/// it). The other arguments are those of CreateStreamProcessor.
/// Throws what the core throws, ContractException on a null `modelData` and on sizes out of range,
/// std::bad_alloc.
std::unique_ptr<StreamProcessor> AssembleStream(Platform::Runtime& runtime, const void* modelData,
                                                std::uint64_t modelSize, std::uint64_t sequenceSize,
                                                std::uint64_t channelCount,
                                                std::uint64_t blockFrames,
                                                std::shared_ptr<const void> keeps = nullptr);

}  // namespace Orvik::Tesmo
