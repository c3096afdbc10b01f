#pragma once

#include "wrapper/ports.h"

namespace Orvik::Tesmo::Plugin {

/// The properties of a plugin that takes any model: the path of the model, and text about it.
inline constexpr const char* modelUri = "urn:kalvrin:model";
inline constexpr const char* statusUri = "urn:kalvrin:status";

/// Returns the identity of a plugin form, which hosts store in their sessions. It depends on the
/// symbol and the channels alone.
inline std::string Lv2Uri(const Hosting::Description& description, unsigned channelCount) {
  return "urn:kalvrin:" + description.symbol + ":" + FormName(channelCount);
}

}  // namespace Orvik::Tesmo::Plugin
