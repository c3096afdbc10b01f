#pragma once

// What hosts read before they load a plugin: for LV2 in the Turtle language, for PipeWire the
// configuration of a filter chain.

#include "hosting/description.h"

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// The text of manifest.ttl: names the plugins, their `binary`, and the file `plugins` that
/// describes them.
std::string ManifestText(const Hosting::Description& description, const std::string& binary,
                         const std::string& plugins);

/// The text of that file: the plugins with all their ports.
std::string PluginsText(const Hosting::Description& description);

/// A virtual device: a microphone, which is the audio of a real one after a LADSPA plugin, or a
/// sink, which plays what applications send it through the plugin.
struct FilterChain {
  std::filesystem::path library;  // absolute
  Hosting::Description description;
  unsigned channelCount = 1;
  bool isSink = false;
  std::vector<std::pair<std::string, double>> controls;  // by the names of the plugin's ports
  std::string target;  // node name of the real device; empty: the default one
};

/// The node name of the virtual device, by the plugin's symbol, and that of the node whose
/// parameters are the plugin's controls, "NODE:CONTROL" with this name.
std::string DeviceNode(const std::string& symbol);
std::string ControlledNode(const std::string& symbol, bool isSink);
inline constexpr const char* chainNode = "model";

/// A complete configuration for `pipewire -c FILE`.
std::string FilterChainText(const FilterChain& chain);

/// A line of such a configuration, with its end, that sets a control; and what such a line sets.
std::string ControlLine(const std::string& control, double value);
std::optional<std::pair<std::string, double>> ParseControl(const std::string& line);

/// A service of systemd for the user that runs the configuration `file` while PipeWire runs.
std::string UnitText(const std::string& name, const std::string& file);

}  // namespace Orvik::Tesmo::Tool
