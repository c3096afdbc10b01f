#pragma once

// What hosts read before they load a plugin: for LV2 in the Turtle language, for PipeWire the
// configuration of a filter chain.

#include "hosting/description.h"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// The text of manifest.ttl: names the plugins, their `binary`, and the file `plugins` that
/// describes them.
std::string ManifestText(const Plugin::Description& description, const std::string& binary,
                         const std::string& plugins);

/// The text of that file: the plugins with all their ports.
std::string PluginsText(const Plugin::Description& description);

/// A virtual microphone: the audio of a real one after a LADSPA plugin.
struct FilterChain {
  std::filesystem::path library;  // absolute
  Plugin::Description description;
  unsigned channelCount = 1;
  std::vector<std::pair<std::string, double>> controls;  // by the names of the plugin's ports
  std::string target;  // node name of the real microphone; empty: the default one
};

/// The node name of the virtual microphone.
std::string MicrophoneName(const Plugin::Description& description);

/// A complete configuration for `pipewire -c FILE`.
std::string FilterChainText(const FilterChain& chain);

}  // namespace Orvik::Tesmo::Tool
