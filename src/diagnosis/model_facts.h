#pragma once

#include "runtime/model_info.h"
#include "runtime/model_layout.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Diagnosis {

/// The sizes that a user may ask for; 0 leaves the choice to the model.
struct StreamRequest {
  std::uint64_t channelCount = 0;
  std::uint64_t sequenceSize = 0;
  std::uint64_t blockFrames = 0;
};

/// What the library makes of a model that keeps its contract.
struct ModelFacts {
  /// Throws what the library refuses the model with.
  explicit ModelFacts(const Platform::Model& model);

  Dnn::ModelLayout layout;
  Dnn::ModelInfo info;
  std::int32_t sampleRateHz;  // as a stream tells it; 0 when the model does not say
  std::int32_t lookahead;     // windows

  /// The request with its zeros settled: channels as the model fixes them, else 2; the sequence
  /// size by the library's rule; blocks of one hop.
  StreamRequest Settle(StreamRequest request) const;
  /// In frames, of a settled request.
  std::uint64_t Latency(const StreamRequest& settled) const;

  /// UTF-8, in the order of the model's output, without "Rest".
  std::vector<std::string> ClassNames() const;
};

}  // namespace Orvik::Tesmo::Diagnosis
