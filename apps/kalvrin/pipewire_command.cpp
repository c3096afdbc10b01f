#include "command_line/command.h"
#include "command_line/values.h"
#include "diagnosis/report.h"
#include "hosting/description.h"
#include "plugin/described_model.h"
#include "plugin/folders.h"
#include "plugin/host_files.h"
#include "system/process.h"

#include <algorithm>
#include <cmath>
#include <iostream>

namespace Orvik::Tesmo::Tool {
namespace {

struct Settings {
  PluginRequest request;
  bool isDirect = false;
  Gains gains;
  std::uint64_t channelCount = 0;
  std::string model, file, folder, source;
};

/// The value for a plugin's control; gains below its range are set to its lowest, which is mute.
double Decibels(float gain) {
  if (gain <= 0) return Plugin::lowestGainDb;
  const double db = 20 * std::log10(static_cast<double>(gain));
  if (db > Plugin::highestGainDb)
    throw UsageError("a gain of " + GainText(gain) + " is more than the plugin's +12 dB");
  return std::max(db, static_cast<double>(Plugin::lowestGainDb));
}

std::vector<std::pair<std::string, double>> ControlsFor(const Settings& settings,
                                                        const Plugin::Description& d) {
  std::vector<std::pair<std::string, double>> controls;
  for (const std::string& name : d.classes)
    controls.emplace_back(name, 0);
  for (const ClassGain& wish : settings.gains.classes) {
    const auto place = std::ranges::find_if(controls, [&](const auto& control) {
      return LowerCase(control.first) == LowerCase(wish.name);
    });
    if (place == controls.end()) throw UsageError("the model has no class '" + wish.name + "'");
    place->second = Decibels(wish.gain);
  }
  controls.emplace_back("Rest", Decibels(settings.gains.rest));
  controls.emplace_back("Master", Decibels(settings.gains.master));
  if (!d.isAlwaysSpread) controls.emplace_back("Mode", 1);
  return controls;
}

unsigned ChannelCountFor(const Settings& settings, const DescribedModel& model) {
  const auto& takes = model.description.channelCounts;
  if (settings.channelCount == 0) return takes.front();
  const auto place = std::ranges::find(takes, settings.channelCount);
  if (place != takes.end()) return *place;
  throw Refusal(model.file.path + " does not take " + Counted(settings.channelCount, "channel"));
}

int WriteMicrophone(Settings& settings) {
  if (settings.folder.empty()) settings.folder = InHome(".local/share/kalvrin");
  ContinueInChild();
  // All nodes of a graph share one thread: unless asked, no evaluation runs on it.
  settings.request.isAlwaysSpread = !settings.isDirect;
  const DescribedModel model(settings.model, settings.request);
  const Plugin::Description& d = model.description;
  if (settings.file.empty())
    settings.file = InHome(".config/pipewire/kalvrin-" + d.symbol + ".conf");
  FilterChain chain;
  chain.description = d;
  chain.channelCount = ChannelCountFor(settings, model);
  chain.controls = ControlsFor(settings, d);
  chain.target = settings.source;
  chain.library = std::filesystem::absolute(WriteLadspaModel(model, settings.folder));
  WriteTextFile(settings.file, FilterChainText(chain));
  const std::string file = std::filesystem::absolute(settings.file).string();
  const std::string unit = "kalvrin-" + d.symbol;
  PrintField(std::cout, "written", file);
  PrintField(std::cout, "plugin", chain.library.string());
  PrintField(std::cout, "try", "pipewire -c '" + file + "', until Ctrl-C");
  PrintField(std::cout, "on", "systemd-run --user --unit=" + unit + " pipewire -c '" + file + "'");
  PrintField(std::cout, "off", "systemctl --user stop " + unit);
  PrintField(std::cout, "then", "choose the microphone '" + d.name + "' in the application");
  return ExitStatus::Ok;
}

std::function<int()> Declare(CLI::App& line) {
  const auto s = std::make_shared<Settings>();
  AddOperand(line, "MODEL", s->model);
  AddGains(line, "--class-gain", s->gains);
  AddOption(line, "--name", "TEXT",
            "what applications call the microphone (default: the model's name)",
            [s](const std::string& text) { s->request.name = CheckedPluginName(text); });
  AddCount(line, "--channels", s->channelCount, 1, 2,
           "1 or 2 (default: 1 where the model takes it)");
  AddOption(line, "--source", "NODE",
            "the microphone to use, as `pw-cli ls Node` has it (default: the default)",
            [s](const std::string& text) { s->source = text; });
  AddCount(line, "--sequence", s->request.sequenceSize, 1, mostWindows,
           "windows per evaluation (default: the model's own, else 4)");
  AddFlag(line, "--direct", s->isDirect,
          "evaluate inside the audio graph: one evaluation less latency, uneven load");
  AddOption(line, "--to", "FILE",
            "the configuration (default: ~/.config/pipewire/kalvrin-NAME.conf)",
            [s](const std::string& text) { s->file = text; });
  AddOption(line, "--plugins", "DIR", "where the plugin goes (default: ~/.local/share/kalvrin)",
            [s](const std::string& text) { s->folder = text; });
  return [s] { return WriteMicrophone(*s); };
}

}  // namespace

constinit const Command pipewireCommand = {
    "pipewire",
    "make a virtual microphone of a model, for PipeWire",
    "Writes a filter-chain configuration and the plugin that it loads, and says how to switch the\n"
    "microphone on and off. Applications then find it among their microphones: the real one,\n"
    "through the model with the gains asked for.\n",
    Declare,
};

}  // namespace Orvik::Tesmo::Tool
