#include "built_stream.h"

#include "diagnosis/model_description.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"
#include "runtime/model_loading.h"
#include "stream/set_up.h"

#include <new>
#include <optional>
#include <utility>

namespace Orvik::Tesmo::C {

namespace {

std::shared_ptr<Platform::Runtime> Engine() {
  try {
    return ProcessRuntime();
  } catch (const winrt::hresult_error&) {
    throw Failure{KALVRIN_ENGINE_MISSING,
                  "the inference engine libonnxruntime.so.1 is missing beside libkalvrin_c.so, or "
                  "it is older than 1.20"};
  }
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

/// Runs `work` and turns what it throws into a Failure in words.
template <class Work>
auto Explained(const std::optional<Diagnosis::ModelDescription>& description,
               const Diagnosis::StreamRequest& request, Work work) {
  kalvrin_status status = KALVRIN_MODEL_REFUSED;
  try {
    try {
      return work();
    } catch (const std::bad_alloc&) {
      status = KALVRIN_OUT_OF_MEMORY;
      throw;
    }
  } catch (...) {
    throw Failure{status, ReasonText(Diagnosis::ExplainCurrentException(
                              description ? &*description : nullptr, request))};
  }
}

}  // namespace

LoadedModel::LoadedModel(const void* bytes, std::size_t size) : engine(Engine()) {
  Explained(description, {}, [&] {
    model = Dnn::LoadLearningModel(*engine, bytes, size);
    description = Diagnosis::DescribeModel(*model);
    facts.emplace(*model);
  });
}

BuiltStream LoadedModel::BuildStream(Diagnosis::StreamRequest request) const {
  request = facts->Settle(request);
  return Explained(description, request, [&]() -> BuiltStream {
    auto processor = AssembleStream(engine, model, request.sequenceSize, request.channelCount,
                                    request.blockFrames);
    return {std::move(processor), SizesOf(*facts, request), ClassesOf(facts->info),
            Diagnosis::Notes(*facts)};
  });
}

}  // namespace Orvik::Tesmo::C
