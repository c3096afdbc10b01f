#pragma once

// What LV2 hosts read before they load a plugin, in the Turtle language.

#include "hosting/description.h"

#include <string>

namespace Orvik::Tesmo::Tool {

/// manifest.ttl: which plugins there are, in the binary `binary`, described in `plugins`.
std::string ManifestText(const Plugin::Description& description, const std::string& binary,
                         const std::string& plugins);

/// The plugins with all their ports.
std::string PluginsText(const Plugin::Description& description);

}  // namespace Orvik::Tesmo::Tool
