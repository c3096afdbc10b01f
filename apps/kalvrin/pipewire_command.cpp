#include "command_line/command.h"
#include "command_line/values.h"
#include "diagnosis/report.h"
#include "hosting/description.h"
#include "plugin/described_model.h"
#include "plugin/desktop.h"
#include "plugin/folders.h"
#include "plugin/host_files.h"
#include "system/process.h"
#include "wrapper/ports.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <vector>

namespace Orvik::Tesmo::Tool {
namespace {

struct Settings {
  PluginRequest request;
  bool isDirect = false, isSink = false, isListed = false;
  Gains gains;
  std::uint64_t channelCount = 0;
  std::vector<std::string> operands;
  std::string on, off, changed;  // names of devices
  std::string file, folder, target;
};

std::vector<std::pair<std::string, double>> ControlsFor(const Settings& settings,
                                                        const Hosting::Description& d) {
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
  // a microphone is mono, a desktop stereo
  if (settings.channelCount == 0) return settings.isSink ? takes.back() : takes.front();
  const auto place = std::ranges::find(takes, settings.channelCount);
  if (place != takes.end()) return *place;
  throw Refusal(model.file.path + " does not take " + Counted(settings.channelCount, "channel"));
}

int WriteDevice(Settings& settings) {
  if (settings.folder.empty()) settings.folder = InHome(".local/share/kalvrin");
  ContinueInChild();
  // All nodes of a graph share one thread: unless asked, no evaluation runs on it.
  settings.request.isAlwaysSpread = !settings.isDirect;
  DescribedModel model(settings.operands.front(), settings.request);
  Hosting::Description& d = model.description;
  if (settings.isSink && settings.request.name.empty()) {  // a device beside the microphone
    d.name += " playback";
    d.symbol = Plugin::SymbolFor(d.name);
  }
  const bool isInItsPlace = settings.file.empty();
  if (isInItsPlace) settings.file = ChainFile(d.symbol);
  FilterChain chain;
  chain.description = d;
  chain.channelCount = ChannelCountFor(settings, model);
  chain.controls = ControlsFor(settings, d);
  chain.isSink = settings.isSink;
  chain.target = settings.target;
  chain.library = std::filesystem::absolute(WriteLadspaModel(model, settings.folder));
  WriteTextFile(settings.file, FilterChainText(chain));
  const std::string file = std::filesystem::absolute(settings.file).string();
  PrintField(std::cout, "written", file);
  PrintField(std::cout, "plugin", chain.library.string());
  PrintField(std::cout, "try", "pipewire -c '" + file + "', until Ctrl-C");
  if (isInItsPlace) {
    PrintField(std::cout, "on", "kalvrin pipewire --on " + d.symbol);
    PrintField(std::cout, "off", "kalvrin pipewire --off " + d.symbol);
  }
  PrintField(std::cout, "then",
             settings.isSink
                 ? "choose '" + d.name + "' for the sound of the desktop or of an application"
                 : "choose the microphone '" + d.name + "' in the application");
  return ExitStatus::Ok;
}

int Run(Settings& s) {
  const auto wishes = {s.isListed, !s.on.empty(), !s.off.empty(), !s.changed.empty()};
  const auto count = std::ranges::count(wishes, true);
  if (count > 1) throw UsageError("--list, --on, --off and --set go one at a time");
  if (!s.changed.empty()) {
    std::vector<ClassGain> gains;
    for (const std::string& operand : s.operands)
      gains.push_back(ParseClassGain(operand));
    if (gains.empty()) throw UsageError("--set needs gains, such as Music=-12dB");
    SetGains(s.changed, gains);
    return ExitStatus::Ok;
  }
  const std::size_t expected = count == 0 ? 1 : 0;
  if (s.operands.size() < expected) throw UsageError("MODEL is required");
  if (s.operands.size() > expected)
    throw UsageError("'" + s.operands[expected] + "' is one too many");
  if (count == 0) return WriteDevice(s);
  if (s.isListed)
    ListDevices();
  else
    SwitchDevice(s.off.empty() ? s.on : s.off, s.off.empty());
  return ExitStatus::Ok;
}

std::function<int()> Declare(CLI::App& line) {
  const auto s = std::make_shared<Settings>();
  const auto addText = [&line, s](const char* name, const char* value, std::string& text,
                                  const char* help) {
    AddOption(line, name, value, help, [s, &text](const std::string& given) { text = given; });
  };
  AddOperands(line, "MODEL", s->operands);
  AddFlag(line, "--sink", s->isSink,
          "not a microphone: what applications play goes through the model to the speakers");
  AddGains(line, "--class-gain", s->gains);
  AddOption(line, "--name", "TEXT", "what applications call the device (default: the model's name)",
            [s](const std::string& text) { s->request.name = CheckedPluginName(text); });
  AddCount(line, "--channels", s->channelCount, 1, 2,
           "1 or 2 (default: 1, for a sink 2, where the model takes it)");
  addText("--device", "NODE", s->target,
          "the real microphone or speakers, as `pw-cli ls Node` has it (default: the default)");
  AddCount(line, "--sequence", s->request.sequenceSize, 1, mostWindows,
           "windows per evaluation (default: the model's own, else 4)");
  AddFlag(line, "--direct", s->isDirect,
          "evaluate inside the audio graph: one evaluation less latency, uneven load");
  addText("--to", "FILE", s->file,
          "the configuration (default: ~/.config/pipewire/kalvrin-NAME.conf)");
  addText("--plugins", "DIR", s->folder, "where the plugin goes (default: ~/.local/share/kalvrin)");
  AddFlag(line, "--list", s->isListed, "instead of MODEL: the devices there are, with their gains");
  addText("--on", "NAME", s->on, "instead of MODEL: switches a device on, now and at each login");
  addText("--off", "NAME", s->off, "instead of MODEL: switches it off");
  addText("--set", "NAME", s->changed,
          "then NAME=GAIN of classes, Rest or Master: changes a device, also while it is on");
  return [s] { return Run(*s); };
}

}  // namespace

constinit const Command pipewireCommand = {
    "pipewire",
    "make a virtual microphone or sink of a model, for PipeWire",
    "Writes a filter-chain configuration and the plugin that it loads. Once the device is on,\n"
    "applications find it among their microphones: the real one, through the model with the gains\n"
    "asked for; with --sink among the places to play to.\n",
    Declare,
};

}  // namespace Orvik::Tesmo::Tool
