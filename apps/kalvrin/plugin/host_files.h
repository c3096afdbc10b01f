#pragma once

// What hosts read before they load a plugin: for LV2 in the Turtle language, for PipeWire the
// configuration of a filter chain.

#include "hosting/description.h"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// manifest.ttl: which plugins there are, in the binary `binary`, described in `plugins`.
std::string ManifestText(const Plugin::Description& description, const std::string& binary,
                         const std::string& plugins);

/// The plugins with all their ports.
std::string PluginsText(const Plugin::Description& description);

/// A microphone that applications can choose, fed from another through a LADSPA plugin.
struct FilterChain {
  std::filesystem::path library;  // absolute
  Plugin::Description description;
  unsigned channelCount = 1;
  std::vector<std::pair<std::string, double>> controls;  // by the names of the plugin's ports
  std::string target;  // node name of the real microphone; empty: the default one
};

/// The node name of the virtual microphone.
std::string MicrophoneName(const Plugin::Description& description);

/// A whole configuration for a `pipewire -c FILE` of its own.
std::string FilterChainText(const FilterChain& chain);

}  // namespace Orvik::Tesmo::Tool
