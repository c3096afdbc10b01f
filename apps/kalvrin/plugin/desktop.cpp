#include "plugin/desktop.h"

#include "command_line/errors.h"
#include "diagnosis/report.h"
#include "hosting/description.h"
#include "plugin/folders.h"
#include "plugin/host_files.h"
#include "system/process.h"
#include "wrapper/ports.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <system_error>
#include <vector>

namespace Orvik::Tesmo::Tool {
namespace {

namespace fs = std::filesystem;

using Values = std::vector<std::pair<std::string, double>>;

bool IsSink(const std::string& chain) {
  return chain.find("media.class = Audio/Sink") != std::string::npos;
}

std::string UnitOf(const std::string& name) {
  return "kalvrin-" + name + ".service";
}

/// The name of a device that is there.
std::string Known(const std::string& wanted) {
  for (const std::string& name : {wanted, Plugin::SymbolFor(wanted)}) {
    std::error_code error;
    if (name.find('/') == std::string::npos && fs::is_regular_file(ChainFile(name), error))
      return name;
  }
  throw Refusal("there is no virtual device '" + wanted + "': no " + ChainFile(wanted).string() +
                "; 'kalvrin pipewire --list' lists them");
}

std::string ReadText(const fs::path& file) {
  std::ifstream in(file);
  std::string text(std::istreambuf_iterator<char>(in), {});
  if (!in) throw Refusal("cannot read " + file.string());
  return text;
}

/// The first line of what a program said.
std::string FirstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

ProgramResult ServiceManager(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"systemctl", "--user"});
  return RunProgram(arguments, true);
}

/// What PipeWire says of all its objects; nothing where it does not run.
nlohmann::json Graph() {
  const ProgramResult dump = RunProgram({"pw-dump"}, false);
  if (dump.status != 0) return {};
  return nlohmann::json::parse(dump.out, nullptr, false);
}

/// The node of the running graph that has the device's gains; null where it is off.
nlohmann::json RunningNode(const nlohmann::json& graph, const std::string& name, bool isSink) {
  if (!graph.is_array()) return {};
  for (const auto& object : graph) {
    const auto props = object.value("/info/props"_json_pointer, nlohmann::json::object());
    if (props.is_object() && props.value("node.name", "") == ControlledNode(name, isSink))
      return object;
  }
  return {};
}

/// The controls as the configuration has them.
Values ControlsOf(const std::string& text) {
  Values controls;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (const auto control = ParseControl(line)) controls.push_back(*control);
  return controls;
}

/// The controls as they are while the device runs: PipeWire calls them "model:Rest".
void TakeRunning(Values& controls, const nlohmann::json& node) {
  const auto props = node.value("/info/params/Props"_json_pointer, nlohmann::json::array());
  for (const auto& entry : props) {
    const auto params = entry.value("params", nlohmann::json::array());
    for (std::size_t i = 0; i + 1 < params.size(); i += 2)
      for (auto& [control, value] : controls)
        if (params[i] == std::string(chainNode) + ":" + control && params[i + 1].is_number())
          value = params[i + 1].get<double>();
  }
}

bool IsGain(const std::string& control) {
  return control != "Mode" && control != "High band";
}

std::string GainsText(const Values& controls) {
  std::ostringstream text;
  for (const auto& [control, value] : controls) {
    if (!IsGain(control)) continue;
    text << (text.tellp() == 0 ? "" : ", ") << control << ' ';
    if (value <= Hosting::lowestGainDb)
      text << "mute";
    else
      text << std::round(value * 10) / 10 << " dB";
  }
  return text.str();
}

/// The configuration with the value of one control changed.
std::string WithControl(const std::string& text, const std::string& control, double value) {
  std::istringstream lines(text);
  std::string changed;
  for (std::string line; std::getline(lines, line);) {
    const auto found = ParseControl(line);
    changed += found && found->first == control ? ControlLine(control, value) : line + '\n';
  }
  return changed;
}

/// The value that PipeWire's command line takes.
std::string ParamsText(const Values& values) {
  nlohmann::json params = nlohmann::json::array();
  for (const auto& [control, value] : values) {
    params.push_back(std::string(chainNode) + ":" + control);
    params.push_back(value);
  }
  return nlohmann::json{{"params", params}}.dump();
}

}  // namespace

fs::path ChainFile(const std::string& name) {
  return InHome(".config/pipewire/kalvrin-" + name + ".conf");
}

double Decibels(float gain) {
  if (gain <= 0) return Hosting::lowestGainDb;
  const double db = 20 * std::log10(static_cast<double>(gain));
  if (db > Hosting::highestGainDb)
    throw UsageError("a gain of " + GainText(gain) + " is more than the plugin's +12 dB");
  return std::max(db, static_cast<double>(Hosting::lowestGainDb));
}

void ListDevices() {
  const fs::path folder = ChainFile("").parent_path();
  std::set<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    const std::string file = entry.path().filename();
    if (file.starts_with("kalvrin-") && file.ends_with(".conf"))
      names.insert(file.substr(8, file.size() - 8 - 5));
  }
  if (names.empty())
    std::cout << "no virtual devices in " << folder.string()
              << "; 'kalvrin pipewire MODEL' makes one\n";
  const nlohmann::json graph = names.empty() ? nlohmann::json() : Graph();
  for (const std::string& name : names) {
    const std::string text = ReadText(ChainFile(name));
    Values controls = ControlsOf(text);
    const bool isSink = IsSink(text);
    const nlohmann::json node = RunningNode(graph, name, isSink);
    if (!node.is_null()) TakeRunning(controls, node);
    PrintField(std::cout, name,
               std::string(isSink ? "sink, " : "microphone, ") + (node.is_null() ? "off" : "on") +
                   ": " + GainsText(controls));
  }
}

void SwitchDevice(const std::string& wanted, bool isOn) {
  const std::string name = Known(wanted);
  const std::string chain = fs::absolute(ChainFile(name)).string();
  const std::string unit = UnitOf(name);
  if (isOn) WriteTextFile(InHome(".config/systemd/user/" + unit), UnitText(name, chain));
  // started again, because the configuration may have changed
  const std::vector<std::vector<std::string>> on = {
      {"daemon-reload"}, {"enable", unit}, {"restart", unit}};
  const std::vector<std::vector<std::string>> off = {{"disable", "--now", unit}};
  const std::string otherWay =
      isOn ? "; 'pipewire -c " + chain + "' switches the device on until Ctrl-C" : "";
  for (const auto& arguments : isOn ? on : off) {
    const ProgramResult result = ServiceManager(arguments);
    if (result.status == ProgramResult::notFound)
      throw Refusal("systemctl is not installed: this system has no service manager for users" +
                    otherWay);
    if (result.status != 0)
      throw Refusal("the service manager of this user did not do it: " + FirstLine(result.out) +
                    otherWay);
  }
  PrintField(std::cout, name, isOn ? "on, now and at each login" : "off");
}

void SetGains(const std::string& wanted, std::span<const ClassGain> gains) {
  const std::string name = Known(wanted);
  std::string text = ReadText(ChainFile(name));
  const Values controls = ControlsOf(text);
  Values changes;
  for (const ClassGain& wish : gains) {
    const auto place = std::ranges::find_if(controls, [&](const auto& control) {
      return IsGain(control.first) && LowerCase(control.first) == LowerCase(wish.name);
    });
    if (place == controls.end())
      throw UsageError("'" + name + "' has no gain '" + wish.name + "', only " +
                       GainsText(controls));
    changes.emplace_back(place->first, Decibels(wish.gain));
    text = WithControl(text, place->first, changes.back().second);
  }
  WriteTextFile(ChainFile(name), text);
  const nlohmann::json node = RunningNode(Graph(), name, IsSink(text));
  if (!node.is_null()) {
    const ProgramResult result = RunProgram(
        {"pw-cli", "set-param", std::to_string(node.value("id", 0)), "Props", ParamsText(changes)},
        true);
    if (result.status != 0 || result.out.find("Error") != std::string::npos)
      throw Refusal("PipeWire did not change '" + name + "': " + FirstLine(result.out) +
                    "; the configuration is changed");
  }
  PrintField(std::cout, name,
             GainsText(changes) + (node.is_null() ? ", as soon as it is on" : ", from now on"));
}

}  // namespace Orvik::Tesmo::Tool
