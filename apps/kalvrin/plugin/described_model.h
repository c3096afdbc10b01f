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
};

/// A model and what its plugin has to know. Refusal where the library does not take the model with
/// one channel or with two, with the reason that it gives for two.
struct DescribedModel {
  DescribedModel(const std::string& path, const PluginRequest& request);

  ModelFile file;
  Plugin::Description description;
};

/// Text for people, on one line of valid UTF-8. UsageError.
std::string CheckedPluginName(std::string_view text);

/// In frames at `hostRateHz`, without what the conversion of the rate adds where it is another than
/// the model's.
double PluginLatency(const Plugin::Description& description, bool isSpread, double hostRateHz);

}  // namespace Orvik::Tesmo::Tool
