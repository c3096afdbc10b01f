#include "wrapper/asked_model.h"

#include "diagnosis/model_description.h"
#include "diagnosis/model_facts.h"
#include "diagnosis/refusals.h"
#include "runtime/model_loading.h"
#include "stream/set_up.h"

#include <dlfcn.h>

#include <exception>
#include <filesystem>
#include <new>
#include <optional>
#include <stdexcept>

namespace Orvik::Tesmo::Plugin {
namespace {

/// The reason in one line.
std::string Clause(const Diagnosis::Explanation& why) {
  return why.reason + (why.found.empty() ? "" : " (" + why.found + ")") + "; " + why.change;
}

std::string StatusText(const Hosting::Description& d, std::size_t gainCount) {
  std::string text = d.name + ":";
  for (std::size_t i = 0; i < d.classes.size(); ++i)
    text += (i == 0 ? " " : ", ") + (i < gainCount ? "Class " + std::to_string(i + 1) : "0 dB") +
            " is " + Diagnosis::PrintableText(d.classes[i]);
  return text;
}

std::string LicenceOf(const Diagnosis::ModelDescription& declared) {
  const auto found = declared.metadata.find(u"License");
  return found == declared.metadata.end() ? "" : Diagnosis::ShortText(found->second);
}

Hosting::Description Describe(const Platform::Model& model, const std::string& file,
                              const StreamWish& wish) {
  const Diagnosis::ModelFacts facts(model);
  Hosting::Description description = Hosting::DescriptionOf(facts, wish.sequenceSize);
  description.name = Diagnosis::PrintableText(facts.info.GetName());
  if (description.name.empty()) description.name = std::filesystem::path(file).stem();
  return description;
}

/// The one that the library uses: it lies beside the library.
std::shared_ptr<Platform::Runtime> EngineOfLibrary() {
  static const auto engine = [] {
    Dl_info library = {};
    dladdr(reinterpret_cast<const void*>(&CreateStreamProcessor), &library);
    const std::filesystem::path file = library.dli_fname ? library.dli_fname : "";
    return OpenRuntime(file.parent_path());
  }();
  return engine;
}

/// Fills all but `file`. Throws std::runtime_error with the reason.
void Load(AskedModel& asked, const StreamWish& wish) {
  const auto bytes = Hosting::LoadModelBytes(asked.file);
  const auto engine = EngineOfLibrary();
  std::optional<Diagnosis::ModelDescription> declared;
  Diagnosis::StreamRequest request = {wish.channelCount, wish.sequenceSize, 0};
  try {
    const auto model = Dnn::LoadLearningModel(*engine, bytes->data(), bytes->size());
    declared = Diagnosis::DescribeModel(*model);
    const Hosting::Description description = Describe(*model, asked.file, wish);
    request.sequenceSize = description.sequenceSize;
    request.blockFrames = description.ChunkFrames();
    try {
      asked.stream = std::make_unique<Hosting::HostedStream>(
          description, bytes, wish.hostRateHz, wish.channelCount, wish.usualBlockFrames);
    } catch (const std::runtime_error&) {
      // the library's entry says nothing but null; this says why
      AssembleStream(engine, model, request.sequenceSize, request.channelCount,
                     request.blockFrames);
      throw;
    }
    asked.status = StatusText(description, wish.classCount);
    asked.description = description;
    asked.licence = LicenceOf(*declared);
    asked.hopSeconds = static_cast<double>(description.HopLength()) /
                       (description.sampleRateHz ? description.sampleRateHz : wish.hostRateHz);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (...) {
    throw std::runtime_error(
        Clause(Diagnosis::ExplainCurrentException(declared ? &*declared : nullptr, request)));
  }
}

}  // namespace

std::unique_ptr<AskedModel> LoadAnyModel(const std::string& file, const StreamWish& wish) {
  auto asked = std::make_unique<AskedModel>();
  asked->file = file;
  try {
    Load(*asked, wish);
  } catch (...) {
    asked->isRefused = true;
    asked->status =
        Diagnosis::PrintableText(file) + " is refused: " + Diagnosis::TextOfCurrentException();
  }
  return asked;
}

}  // namespace Orvik::Tesmo::Plugin
