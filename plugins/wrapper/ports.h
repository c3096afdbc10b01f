#pragma once

#include "hosting/description.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Plugin {

/// What a port of a plugin is for. From Latency on the plugin writes. Messages are about the model,
/// where the plugin takes any.
enum class Role {
  Input,
  Output,
  Enabled,
  Bypass,
  Master,
  Rest,
  ClassGain,
  Mode,
  HighBand,
  FreeWheel,
  MessagesIn,
  Latency,
  Late,
  Load,
  MessagesOut
};

/// One port, in terms that all plugin interfaces share.
struct Port {
  Role role = Role::Input;
  unsigned index = 0;  // of the channel or the class
  std::string symbol;  // letters, digits and _; the same for the same model, for hosts' sessions
  std::string name;    // for people, UTF-8
  float lowest = 0, highest = 1, initial = 0;  // of controls

  bool IsAudio() const { return role == Role::Input || role == Role::Output; }
  bool IsMessages() const { return role == Role::MessagesIn || role == Role::MessagesOut; }
  bool IsWritten() const { return role == Role::Output || role >= Role::Latency; }
  bool IsGain() const { return role >= Role::Master && role <= Role::ClassGain; }
};

enum class Interface { Lv2, Ladspa, Vst3 };

/// The ports of one form, in the order of their numbers. LV2 has Enabled, the others have Bypass in
/// its place. LADSPA has no FreeWheel. Only LV2 has messages.
std::vector<Port> PortsOf(const Hosting::Description& description, unsigned channelCount,
                          Interface of);

/// What a plugin that takes any model has to know: eight gains, whose names are numbers; mono and
/// stereo.
Hosting::Description DescriptionOfAnyModel(const std::string& name);

/// A number for interfaces that know plugins by one: FNV-1a of `text`.
std::uint32_t HashOf(const std::string& text);

/// "mono", "stereo", "3_channels" and so on.
std::string FormName(unsigned channelCount);

/// Returns `text` in small letters, with _ for what is no letter or digit and before a leading
/// digit; never empty.
std::string SymbolFor(const std::string& text);

}  // namespace Orvik::Tesmo::Plugin
