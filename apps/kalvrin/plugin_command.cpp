#include "command.h"
#include "command_line/child_process.h"
#include "diagnosis/report.h"
#include "lv2/uri.h"
#include "plugin/described_model.h"
#include "plugin/folders.h"

#include <iostream>

namespace Orvik::Tesmo::Tool {
namespace {

struct Settings {
  PluginRequest request;
  std::string folder;
  bool isLadspa = false;
};
using Value = std::string_view;

constexpr Option<Settings> options[] = {
    {"--name", "TEXT", "what hosts call it (default: the model's name, else that of its file)",
     [](Settings& s, Value value) { s.request.name = CheckedPluginName(value); }},
    {"--to", "DIR", "where to write (default: ~/.lv2, or ~/.ladspa)",
     [](Settings& s, Value value) { s.folder = value.empty() ? "." : value; }},
    {"--ladspa", "", "for LADSPA hosts: add the model to those that DIR/kalvrin_ladspa.so offers",
     [](Settings& s, Value) { s.isLadspa = true; }},
    {"--sequence", "N", "windows per evaluation (default: the model's own, else 4)",
     [](Settings& s, Value value) { s.request.sequenceSize = ParseCount(value, 1, mostWindows); }},
    {"--spread", "",
     "always evaluate on a thread of its own: no choice of the mode, and hard real time",
     [](Settings& s, Value) { s.request.isAlwaysSpread = true; }},
};

void PrintLatencies(const Plugin::Description& d) {
  const double rate = d.sampleRateHz ? d.sampleRateHz : 48000;
  const auto text = [&](bool isSpread) {
    const double frames = PluginLatency(d, isSpread, rate);
    return std::to_string(static_cast<std::uint64_t>(frames)) + " frames (" +
           DurationText(frames / rate) + ")";
  };
  if (!d.isAlwaysSpread) PrintField(std::cout, "direct", text(false));
  PrintField(std::cout, "spread", text(true));
}

int WritePlugin(Arguments arguments) {
  Settings settings;
  const auto operands = ParseArguments<Settings>(arguments, options, settings);
  ExpectOperands(operands, pluginCommand.operands);
  if (settings.folder.empty()) settings.folder = InHome(settings.isLadspa ? ".ladspa" : ".lv2");
  ContinueInChild();
  const DescribedModel model(operands[0], settings.request);
  const Plugin::Description& d = model.description;
  const auto written = settings.isLadspa ? WriteLadspaModel(model, settings.folder)
                                         : WriteLv2Bundle(model, settings.folder);
  PrintField(std::cout, "written", written.string());
  for (const unsigned count : d.channelCounts)
    PrintField(std::cout, Plugin::FormName(count),
               settings.isLadspa ? d.symbol + "_" + Plugin::FormName(count)
                                 : Plugin::Lv2Uri(d, count));
  PrintLatencies(d);
  return ExitStatus::Ok;
}

}  // namespace

constinit const Command pluginCommand = {
    "plugin",
    "MODEL",
    "make an LV2 or LADSPA plugin of a model",
    "Writes a complete plugin: binary, model, libraries and what hosts read to find it. It has a "
    "gain\n"
    "in decibels for each class, for Rest and for everything, a bypass, and reports its latency;\n"
    "the latencies printed are at the model's rate. Hosts may run at any rate from 8 to 192 kHz.\n",
    [](std::ostream& out) { PrintOptions<Settings>(out, options); },
    WritePlugin,
};

}  // namespace Orvik::Tesmo::Tool
