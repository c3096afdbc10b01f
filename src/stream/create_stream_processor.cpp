#include "kalvrin/stream_processor.h"

#include "runtime/model_loading.h"
#include "stream/set_up.h"

/// The one exported symbol.
extern "C" Orvik::Tesmo::StreamProcessor*
CreateStreamProcessor(const void* modelData, std::uint64_t modelSize, std::uint64_t sequenceSize,
                      std::uint64_t channelCount, std::uint64_t blockFrames) {
  using namespace Orvik::Tesmo;
  try {
    const auto runtime = ProcessRuntime();
    const auto model = Dnn::LoadLearningModel(*runtime, modelData, modelSize);
    return AssembleStream(runtime, model, sequenceSize, channelCount, blockFrames).release();
  } catch (...) {
    return nullptr;
  }
}
