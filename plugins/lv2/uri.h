#pragma once

#include "wrapper/ports.h"

namespace Orvik::Tesmo::Plugin {

/// Returns the identity of a plugin form, which hosts store in their sessions. It depends on the
/// symbol and the channels alone.
inline std::string Lv2Uri(const Description& description, unsigned channelCount) {
  return "urn:kalvrin:" + description.symbol + ":" + FormName(channelCount);
}

}  // namespace Orvik::Tesmo::Plugin
