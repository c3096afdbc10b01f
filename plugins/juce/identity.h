#pragma once

// What this copy of the binary is: the plugin of one model, or one that takes any. It is read once,
// from the bundle that the binary stands in. The wrapper of VST3 is compiled with this header in
// front, so that the plugin of each model has a name and class numbers of its own.

#include <cstdint>
#include <filesystem>

namespace Orvik::Tesmo::Hosting {
struct Description;
}

namespace Orvik::Tesmo::Plugin {

/// Of one model, or of a plugin that takes any. Any thread.
const Hosting::Description& OwnDescription();
/// The bundle's model; empty where the plugin takes any.
const std::filesystem::path& OwnModel();

/// The name for hosts; it stays valid.
const char* OwnName();
/// The part of the class numbers in which plugins differ.
std::uint32_t OwnCode();

}  // namespace Orvik::Tesmo::Plugin

#ifdef KALVRIN_VST3_WRAPPER
#undef JucePlugin_Name
#define JucePlugin_Name Orvik::Tesmo::Plugin::OwnName()
#undef JucePlugin_PluginCode
#define JucePlugin_PluginCode Orvik::Tesmo::Plugin::OwnCode()
#endif
