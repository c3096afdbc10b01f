#include "wrapper/ports.h"

#include <set>

namespace Orvik::Tesmo::Plugin {
namespace {

using Hosting::highestGainDb, Hosting::lowestGainDb;

Port Audio(Role role, unsigned channel, unsigned channelCount) {
  const bool isInput = role == Role::Input;
  Port port{.role = role,
            .index = channel,
            .symbol = isInput ? "in" : "out",
            .name = isInput ? "In" : "Out"};
  if (channelCount == 2) {
    port.symbol += channel == 0 ? "_left" : "_right";
    port.name += channel == 0 ? " left" : " right";
  } else if (channelCount > 2) {
    port.symbol += "_" + std::to_string(channel + 1);
    port.name += " " + std::to_string(channel + 1);
  }
  return port;
}

Port Gain(Role role, unsigned index, std::string symbol, std::string name) {
  return {role, index, std::move(symbol), std::move(name), lowestGainDb, highestGainDb, 0};
}

/// Of names that differ in other letters only, the later ones get a number.
std::vector<std::string> ClassSymbols(const std::vector<std::string>& classes) {
  std::set<std::string> used;
  std::vector<std::string> symbols;
  for (const std::string& name : classes) {
    const std::string plain = "gain_" + SymbolFor(name);
    std::string symbol = plain;
    for (int number = 2; !used.insert(symbol).second; ++number)
      symbol = plain + "_" + std::to_string(number);
    symbols.push_back(symbol);
  }
  return symbols;
}

}  // namespace

std::vector<Port> PortsOf(const Hosting::Description& description, unsigned channelCount,
                          Interface of) {
  std::vector<Port> ports;
  for (const Role role : {Role::Input, Role::Output})
    for (unsigned c = 0; c < channelCount; ++c)
      ports.push_back(Audio(role, c, channelCount));
  if (of == Interface::Lv2)
    ports.push_back({Role::Enabled, 0, "enabled", "Enabled", 0, 1, 1});
  else
    ports.push_back({Role::Bypass, 0, "bypass", "Bypass", 0, 1, 0});
  const auto symbols = ClassSymbols(description.classes);
  for (unsigned i = 0; i < symbols.size(); ++i)
    ports.push_back(Gain(Role::ClassGain, i, symbols[i], description.classes[i]));
  ports.push_back(Gain(Role::Rest, 0, "rest", "Rest"));
  ports.push_back(Gain(Role::Master, 0, "master", "Master"));
  if (!description.isAlwaysSpread) ports.push_back({Role::Mode, 0, "mode", "Mode", 0, 2, 0});
  // a model of any rate has the host's band
  if (description.sampleRateHz != 0 || description.takesAnyModel)
    ports.push_back({Role::HighBand, 0, "high_band", "High band", 0, 1, 0});
  if (of != Interface::Ladspa)
    ports.push_back({Role::FreeWheel, 0, "free_wheeling", "Free-wheeling", 0, 1, 0});
  // hosts know LADSPA's latency port by this name
  ports.push_back({Role::Latency, 0, "latency", of == Interface::Ladspa ? "latency" : "Latency", 0,
                   1 << 20, 0});
  ports.push_back({Role::Late, 0, "late", "Late results", 0, 1 << 24, 0});
  ports.push_back({Role::Load, 0, "load", "Load in percent", 0, 100, 0});
  if (description.takesAnyModel && of == Interface::Lv2) {
    ports.push_back({.role = Role::MessagesIn, .symbol = "control", .name = "Control"});
    ports.push_back({.role = Role::MessagesOut, .symbol = "notify", .name = "Notify"});
  }
  return ports;
}

Hosting::Description DescriptionOfAnyModel(const std::string& name) {
  constexpr int gainCount = 8;
  Hosting::Description description;
  description.name = name;
  description.symbol = SymbolFor(name);
  description.takesAnyModel = true;
  description.channelCounts = {1, 2};
  for (int i = 1; i <= gainCount; ++i)
    description.classes.push_back("Class " + std::to_string(i));
  return description;
}

std::uint32_t HashOf(const std::string& text) {
  std::uint32_t hash = 2166136261U;
  for (const char c : text)
    hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  return hash;
}

std::string FormName(unsigned channelCount) {
  if (channelCount <= 2) return channelCount == 1 ? "mono" : "stereo";
  return std::to_string(channelCount) + "_channels";
}

std::string SymbolFor(const std::string& text) {
  std::string symbol;
  for (const char c : text) {
    const char small = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    const bool fits = (small >= 'a' && small <= 'z') || (small >= '0' && small <= '9');
    symbol += fits ? small : '_';
  }
  if (symbol.empty() || (symbol[0] >= '0' && symbol[0] <= '9')) symbol.insert(0, 1, '_');
  return symbol;
}

}  // namespace Orvik::Tesmo::Plugin
