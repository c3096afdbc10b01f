#include "built_stream.h"

#include "diagnosis/model_description.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"
#include "runtime/model_loading.h"
#include "stream/set_up.h"
#include "system/system.h"

#include <cmath>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>

namespace Orvik::Tesmo::C {

namespace {

std::shared_ptr<Platform::Runtime> Engine() {
  try {
    return ProcessRuntime();
  } catch (const winrt::hresult_error&) {
    throw Failure{
        KALVRIN_ENGINE_MISSING,
        "the inference engine " + std::string(System::engineFile) +
            " is missing beside the library of the C interface, or it is older than 1.20"};
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

BuiltStream LoadedModel::BuildStream(Diagnosis::StreamRequest request, int rateHz) const {
  if (rateHz < 0) throw Failure{KALVRIN_INVALID_ARGUMENT, "a sample rate is a number from 0"};
  const bool isConverted = rateHz != 0 && facts->sampleRateHz > 0 && rateHz != facts->sampleRateHz;
  if (isConverted) return BuildAtRate(request, rateHz);
  return BuildAtModelRate(facts->Settle(request));
}

BuiltStream LoadedModel::BuildAtModelRate(const Diagnosis::StreamRequest& settled) const {
  return Explained(description, settled, [&]() -> BuiltStream {
    auto processor = AssembleStream(engine, model, settled.sequenceSize, settled.channelCount,
                                    settled.blockFrames);
    return {std::move(processor), SizesOf(*facts, settled), ClassesOf(facts->info),
            Diagnosis::Notes(*facts)};
  });
}

BuiltStream LoadedModel::BuildAtRate(Diagnosis::StreamRequest request, int rateHz) const {
  const double audioPerModel = static_cast<double>(rateHz) / facts->sampleRateHz;
  if (request.blockFrames == 0)
    request.blockFrames = static_cast<std::uint64_t>(
        std::ceil(static_cast<double>(facts->layout.GetHopLength()) * audioPerModel));
  request = facts->Settle(request);
  Diagnosis::StreamRequest inner = request;
  inner.blockFrames = Hosting::FullBandStream::InnerBlockFrames(*facts, request);
  BuiltStream built = BuildAtModelRate(inner);
  try {
    auto stream = std::make_unique<Hosting::FullBandStream>(*facts, request, rateHz,
                                                            std::move(built.processor));
    built.fullBand = stream.get();
    built.sizes.block_frames = request.blockFrames;
    built.sizes.latency_frames = stream->LatencyFrames();
    built.processor = std::move(stream);
  } catch (const std::runtime_error& error) {  // rates too far apart
    throw Failure{KALVRIN_INVALID_ARGUMENT, error.what()};
  }
  return built;
}

}  // namespace Orvik::Tesmo::C
