#pragma once

#include "wrapper/ports.h"

namespace Orvik::Tesmo::Plugin {

/// What hosts know a form of a model by, in their sessions too: it follows from the symbol alone.
inline std::string Lv2Uri(const Description& description, unsigned channelCount) {
  return "urn:kalvrin:" + description.symbol + ":" + FormName(channelCount);
}

}  // namespace Orvik::Tesmo::Plugin
