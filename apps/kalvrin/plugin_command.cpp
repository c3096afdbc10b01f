#include "command_line/command.h"
#include "diagnosis/report.h"
#include "lv2/uri.h"
#include "plugin/described_model.h"
#include "plugin/folders.h"
#include "system/process.h"

#include <iostream>
#include <vector>

namespace Orvik::Tesmo::Tool {
namespace {

struct Settings {
  std::vector<std::string> operands;
  PluginRequest request;
  std::string folder;
  bool isLadspa = false;
  bool isVst3 = false;
  bool takesAnyModel = false;
  bool isPortable = false;
};

void PrintLatencies(const Hosting::Description& d) {
  const double rate = d.sampleRateHz ? d.sampleRateHz : 48000;
  const auto text = [&](bool isSpread) {
    const double frames = PluginLatency(d, isSpread, rate);
    return std::to_string(static_cast<std::uint64_t>(frames)) + " frames (" +
           DurationText(frames / rate) + ")";
  };
  if (!d.isAlwaysSpread) PrintField(std::cout, "direct", text(false));
  PrintField(std::cout, "spread", text(true));
}

Plugin::Interface InterfaceOf(const Settings& settings) {
  return settings.isVst3     ? Plugin::Interface::Vst3
         : settings.isLadspa ? Plugin::Interface::Ladspa
                             : Plugin::Interface::Lv2;
}

/// What hosts call the form.
std::string NameOfForm(Plugin::Interface of, const Hosting::Description& d, unsigned count) {
  switch (of) {
  case Plugin::Interface::Lv2:
    return Plugin::Lv2Uri(d, count);
  case Plugin::Interface::Ladspa:
    return d.symbol + "_" + Plugin::FormName(count);
  case Plugin::Interface::Vst3:
    break;
  }
  return d.name;
}

void PrintPlugin(const std::filesystem::path& written, const Hosting::Description& d,
                 Plugin::Interface of) {
  PrintField(std::cout, "written", written.string());
  for (const unsigned count : d.channelCounts)
    PrintField(std::cout, Plugin::FormName(count), NameOfForm(of, d, count));
}

int WriteAnyModelPlugin(const Settings& settings) {
  if (!settings.operands.empty()) throw UsageError("--any takes no MODEL: the host chooses it");
  if (settings.isLadspa)
    throw UsageError("--any is for LV2 and VST3: LADSPA hosts cannot choose a file");
  if (settings.request.sequenceSize != 0)
    throw UsageError("--any takes no --sequence: each model has its own");
  const Hosting::Description d = DescriptionOfAnyModel(settings.request);
  const Plugin::Interface of = InterfaceOf(settings);
  PrintPlugin(WriteBundle(of, d, nullptr, settings.folder, settings.isPortable), d, of);
  return ExitStatus::Ok;
}

int WritePlugin(Settings& settings) {
  if (settings.isLadspa && settings.isVst3) throw UsageError("--ladspa or --vst3, not both");
  const Plugin::Interface of = InterfaceOf(settings);
  if (settings.folder.empty())
    settings.folder = InHome(settings.isLadspa ? ".ladspa" : settings.isVst3 ? ".vst3" : ".lv2");
  if (settings.takesAnyModel) return WriteAnyModelPlugin(settings);
  const auto& operands = settings.operands;
  if (operands.empty()) throw UsageError("MODEL is required");
  if (operands.size() > 1) throw UsageError("'" + operands[1] + "' is one too many");
  ContinueInChild();
  const DescribedModel model(operands.front(), settings.request);
  const Hosting::Description& d = model.description;
  const auto written = settings.isLadspa
                           ? WriteLadspaModel(model, settings.folder, settings.isPortable)
                           : WriteBundle(of, d, &model.file, settings.folder, settings.isPortable);
  PrintPlugin(written, d, of);
  PrintLatencies(d);
  return ExitStatus::Ok;
}

std::function<int()> Declare(CLI::App& line) {
  const auto s = std::make_shared<Settings>();
  AddOperands(line, "MODEL", s->operands);
  AddOption(line, "--name", "TEXT",
            "what hosts call it (default: the model's name, else that of its file)",
            [s](const std::string& text) { s->request.name = CheckedPluginName(text); });
  AddOption(line, "--to", "DIR", "where to write (default: ~/.lv2, ~/.ladspa or ~/.vst3)",
            [s](const std::string& text) { s->folder = text.empty() ? "." : text; });
  AddFlag(line, "--any", s->takesAnyModel,
          "without MODEL: a plugin that takes any, which is chosen while audio runs");
  AddFlag(line, "--ladspa", s->isLadspa,
          "for LADSPA hosts: add the model to those that DIR/kalvrin_ladspa.so offers");
  AddFlag(line, "--vst3", s->isVst3,
          "for VST3 hosts, with a window (needs the package kalvrin-app, or `make app`)");
  AddFlag(line, "--portable", s->isPortable,
          "copy library and engine into it, for other machines (default: links to the installed)");
  AddCount(line, "--sequence", s->request.sequenceSize, 1, mostWindows,
           "windows per evaluation (default: the model's own, else 4)");
  AddCount(line, "--channels", s->request.channelCount, 1, Hosting::mostChannels,
           "a form of that many channels too, beside mono and stereo");
  AddFlag(line, "--spread", s->request.isAlwaysSpread,
          "always evaluate on a thread of its own: no choice of the mode, and hard real time");
  return [s] { return WritePlugin(*s); };
}

}  // namespace

constinit const Command pluginCommand = {
    "plugin",
    "make an LV2, LADSPA or VST3 plugin of a model",
    "Writes a plugin: model, binary, libraries and what hosts read to find it. It has a gain in\n"
    "decibels for each class, for Rest and for everything, a bypass, and reports its latency; the\n"
    "latencies printed are at the model's rate. Hosts may run at any rate from 8 to 192 kHz.\n",
    Declare,
};

}  // namespace Orvik::Tesmo::Tool
