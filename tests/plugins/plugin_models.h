#pragma once

#include "hosting/description.h"
#include "hosting/model_bytes.h"
#include "support/audio_models.h"

#include <memory>
#include <string>

namespace TestSupport {

/// A model and what its plugin knows of it.
struct PluginModel {
  Orvik::Tesmo::Hosting::Description description;
  std::shared_ptr<const Orvik::Tesmo::Hosting::ModelBytes> bytes;
};

inline std::shared_ptr<const Orvik::Tesmo::Hosting::ModelBytes> Bytes(const std::string& model) {
  return std::make_shared<Orvik::Tesmo::Hosting::ModelBytes>(model.begin(), model.end());
}

/// Passes samples through in its class "Extracted" and adds a state that every evaluation counts
/// up, so that what starts again and what runs on cannot be taken for each other.
inline PluginModel CountingModel(std::uint64_t hop, std::uint64_t sequence, std::uint32_t rateHz,
                                 AudioModelOptions options = {}) {
  options.features = static_cast<std::int64_t>(2 * hop);
  options.states.push_back({.isHeard = true});
  options.metadata = {{"SampleRate", std::to_string(rateHz)}};
  return {{.name = "Counting",
           .symbol = "counting",
           .sampleRateHz = rateHz,
           .windowLength = 2 * hop,
           .sequenceSize = sequence,
           .channelCounts = {1, 2},
           .classes = {"Extracted"}},
          Bytes(MakeAudioModel(options))};
}

}  // namespace TestSupport
