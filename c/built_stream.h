#pragma once

// A stream and what its model declares, or in words why there is none.

#include "diagnosis/model_description.h"
#include "diagnosis/model_facts.h"
#include "hosting/full_band_stream.h"
#include "kalvrin.h"
#include "kalvrin/stream_processor.h"
#include "platform/platform.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Orvik::Tesmo::C {

/// A stream that cannot be had: the status to answer, and the words that kalvrin_create promises.
struct Failure {
  kalvrin_status status;
  std::string reason;
};

/// A class, or Rest.
struct ClassName {
  std::string shown;    ///< UTF-8, printable
  std::u16string wide;  ///< as the library finds it
};

struct BuiltStream {
  std::unique_ptr<StreamProcessor> processor;
  kalvrin_sizes sizes;
  std::vector<ClassName> classes;  ///< in the model's order, then Rest
  std::vector<std::string> notes;
  Hosting::FullBandStream* fullBand = nullptr;  ///< `processor`, at another rate than the model's
};

/// A model in the engine, for any number of streams. Does not change.
class LoadedModel {
public:
  /// `bytes` are read during the call only. Throws Failure.
  LoadedModel(const void* bytes, std::size_t size);

  /// `rateHz`: of the audio; 0: the model's. The stream does not need this object any more. Throws
  /// Failure.
  BuiltStream BuildStream(Diagnosis::StreamRequest request, int rateHz) const;

private:
  BuiltStream BuildAtModelRate(const Diagnosis::StreamRequest& settled) const;
  BuiltStream BuildAtRate(Diagnosis::StreamRequest request, int rateHz) const;

  std::shared_ptr<Platform::Runtime> engine;
  std::shared_ptr<Platform::Model> model;
  std::optional<Diagnosis::ModelDescription> description;
  std::optional<Diagnosis::ModelFacts> facts;
};

}  // namespace Orvik::Tesmo::C
