#pragma once

#include "hosting/description.h"
#include "model/model.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Orvik::Tesmo::Tool {

/// What the command line asks of a plugin.
struct PluginRequest {
  std::string name;                // empty: the model's own, else that of its file
  std::uint64_t sequenceSize = 0;  // 0: the model's own, else 4
  bool isAlwaysSpread = false;
  std::uint64_t channelCount = 0;  // a further form beside mono and stereo; 0: none
};

/// A model and what its plugin has to know. Throws Refusal where the library takes the model
/// neither with one channel nor with two, or not with the channels asked for, with the reason.
struct DescribedModel {
  DescribedModel(const std::string& path, const PluginRequest& request);

  ModelFile file;
  Hosting::Description description;
};

/// What a plugin that takes any model has to know: the names of its gains are numbers.
Hosting::Description DescriptionOfAnyModel(const PluginRequest& request);

/// Returns `text` where it is one line of valid UTF-8; throws UsageError otherwise.
std::string CheckedPluginName(std::string_view text);

/// In frames at `hostRateHz`. Where that is not the model's rate, the conversion of the rate adds
/// some more, which is not included.
double PluginLatency(const Hosting::Description& description, bool isSpread, double hostRateHz);

}  // namespace Orvik::Tesmo::Tool
