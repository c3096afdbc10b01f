#pragma once

// The virtual devices of this user's desktop: what `kalvrin pipewire` has made, switched on and off
// through the user's service manager and changed while they run through PipeWire's parameters. Each
// has a name, which is the symbol of its plugin. All throw Refusal.

#include "command_line/values.h"

#include <filesystem>
#include <span>
#include <string>

namespace Orvik::Tesmo::Tool {

/// ~/.config/pipewire/kalvrin-NAME.conf, the configuration of the filter chain.
std::filesystem::path ChainFile(const std::string& name);

/// Prints each device with whether it is on, and its gains.
void ListDevices();

/// On now and at each login, until it is switched off. `name` is as ListDevices prints it, or as
/// applications see it.
void SwitchDevice(const std::string& name, bool isOn);

/// Sets the gains in the configuration and, where the device is on, at once.
void SetGains(const std::string& name, std::span<const ClassGain> gains);

/// Decibels for a plugin's control; what is below its range is set to its lowest, which is mute.
/// Throws UsageError above its highest.
double Decibels(float gain);

}  // namespace Orvik::Tesmo::Tool
