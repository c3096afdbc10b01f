#include "kalvrin/stream_processor.h"

#include "stream/assemble_stream.h"
#include "stream/process_runtime.h"

/// The one exported symbol.
extern "C" __attribute__((visibility("default"))) Orvik::Tesmo::StreamProcessor*
CreateStreamProcessor(const void* modelData, std::uint64_t modelSize, std::uint64_t sequenceSize,
                      std::uint64_t channelCount, std::uint64_t blockFrames) {
  try {
    const auto runtime = Orvik::Tesmo::ProcessRuntime();
    return Orvik::Tesmo::AssembleStream(*runtime, modelData, modelSize, sequenceSize, channelCount,
                                        blockFrames, runtime)
        .release();
  } catch (...) {
    return nullptr;
  }
}
