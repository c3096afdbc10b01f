#include "model_probe.h"

#include "diagnosis/model_description.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"
#include "kalvrin/stream_processor.h"
#include "platform/onnxruntime/runtime.h"
#include "runtime/geometry_check.h"
#include "runtime/model_binding.h"
#include "runtime/model_loading.h"
#include "stream/buffer.h"
#include "stream/library_folder.h"
#include "stream/runtime_modules.h"

#include <memory>
#include <new>
#include <optional>

namespace Orvik::Tesmo::C {

namespace {

/// The engine of the library, opened from the same folder; the loader counts it once.
class Engine {
public:
  Engine() : modules(FolderOf(reinterpret_cast<const void*>(&CreateStreamProcessor))) {
    const ResultCode code = Platform::CreateOnnxRuntime(modules.Engine(), runtime);
    if (code == ResultCodes::OutOfMemory) throw std::bad_alloc();
    if (Failed(code))
      throw Failure{KALVRIN_ENGINE_MISSING,
                    "the inference engine libonnxruntime.so.1 is missing beside libkalvrin.so, or "
                    "it is older than 1.20"};
  }

  Platform::Runtime& Runtime() const { return *runtime; }

private:
  RuntimeModules modules;
  std::shared_ptr<Platform::Runtime> runtime;
};

const Engine& ProcessEngine() {
  static const Engine engine;
  return engine;
}

std::string ReasonText(const Diagnosis::Explanation& explanation) {
  std::string text = explanation.reason;
  const auto add = [&text](const char* label, const std::string& clause) {
    if (!clause.empty()) text += '\n' + std::string(label) + ": " + clause;
  };
  add("found", explanation.found);
  add("expected", explanation.expected);
  add("change", explanation.change);
  return text;
}

/// Runs `work` on the model. What it, or the reading of the model, throws becomes a Failure in
/// words.
template <class Work>
void WithModel(const void* bytes, std::size_t size, Diagnosis::StreamRequest request, Work work) {
  Platform::Runtime& runtime = ProcessEngine().Runtime();
  std::optional<Diagnosis::ModelDescription> description;
  kalvrin_status status = KALVRIN_MODEL_REFUSED;
  try {
    try {
      const auto model = Dnn::LoadLearningModel(runtime, bytes, size);
      description = Diagnosis::DescribeModel(*model);
      const Diagnosis::ModelFacts facts(*model);
      request = facts.Settle(request);
      work(runtime, model, facts, request);
    } catch (const std::bad_alloc&) {
      status = KALVRIN_OUT_OF_MEMORY;
      throw;
    }
  } catch (...) {
    throw Failure{status, ReasonText(Diagnosis::ExplainCurrentException(
                              description ? &*description : nullptr, request))};
  }
}

std::vector<ClassName> ClassesOf(const Dnn::ModelInfo& info) {
  std::vector<ClassName> classes;
  for (std::uint32_t id = 0; id < info.GetAudioClassCount(); ++id) {
    const char16_t* name = info.GetAudioClassName(id);
    classes.push_back({Diagnosis::PrintableText(name), name});
  }
  classes.push_back({"Rest", u"Rest"});
  return classes;
}

kalvrin_sizes SizesOf(const Diagnosis::ModelFacts& facts, const Diagnosis::StreamRequest& settled) {
  kalvrin_sizes sizes{};
  sizes.channels = settled.channelCount;
  sizes.windows = settled.sequenceSize;
  sizes.block_frames = settled.blockFrames;
  sizes.window_frames = facts.layout.GetWindowLength();
  sizes.hop_frames = facts.layout.GetHopLength();
  sizes.lookahead_windows = static_cast<std::size_t>(facts.lookahead);
  sizes.latency_frames = facts.Latency(settled);
  sizes.class_count = facts.info.GetAudioClassCount();
  sizes.sample_rate_hz = facts.sampleRateHz;
  return sizes;
}

}  // namespace

ModelProbe ProbeModel(const void* bytes, std::size_t size,
                      const Diagnosis::StreamRequest& request) {
  ModelProbe probe;
  WithModel(
      bytes, size, request,
      [&probe](Platform::Runtime&, const std::shared_ptr<Platform::Model>&,
               const Diagnosis::ModelFacts& facts, const Diagnosis::StreamRequest& settled) {
        Dnn::CheckLookahead(facts.lookahead);
        Dnn::CheckBaselineSequenceSize(facts.info.GetBaselineSequenceSize());
        probe = {settled, SizesOf(facts, settled), ClassesOf(facts.info), Diagnosis::Notes(facts)};
      });
  return probe;
}

Failure FindRefusal(const void* bytes, std::size_t size, const Diagnosis::StreamRequest& settled) {
  try {
    WithModel(
        bytes, size, settled,
        [](Platform::Runtime& runtime, const std::shared_ptr<Platform::Model>& model,
           const Diagnosis::ModelFacts& facts, const Diagnosis::StreamRequest& sizes) {
          const Dnn::ProcessingGeometry geometry{
              facts.layout.GetWindowLength(), sizes.sequenceSize, sizes.channelCount,
              static_cast<std::uint32_t>(facts.lookahead), facts.layout.GetHopLength()};
          const auto session = Dnn::CreateSession(runtime, model, Dnn::CreateCpuDevice(runtime));
          const auto binding = Dnn::CreateBinding(runtime, session);
          const Dnn::ModelBinding tensors(runtime, *model, facts.layout,
                                          facts.info.GetAudioClassCount(), geometry);
          Dnn::BindTensors(*binding, tensors);
          if (!BufferFits({2, geometry.hopLength, geometry.sequenceSize, geometry.channelCount}) ||
              !BufferFits({sizes.blockFrames, sizes.channelCount}))
            throw ContractException("Stream sizes out of range");
        });
  } catch (Failure& failure) {
    return std::move(failure);
  }
  return {KALVRIN_MODEL_REFUSED,
          "the model runs, but there is no stream for it: there is not enough "
          "memory, or no transform for windows of this length"};
}

}  // namespace Orvik::Tesmo::C
