#include "command_line/command.h"

#include "diagnosis/report.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <vector>

namespace Orvik::Tesmo::Tool {
namespace {

/// Makes two arguments of "--name=value": for "--name=", CLI11 would take the next argument as the
/// value. The result is in the order that CLI11 expects, the last argument first.
std::vector<std::string> SplitValues(const CLI::App& line, Arguments arguments) {
  std::vector<std::string> split;
  bool optionsEnded = false;
  for (const std::string_view argument : arguments) {
    optionsEnded = optionsEnded || argument == "--";
    const std::size_t equals = argument.find('=');
    const std::string name(argument.substr(0, equals));
    const bool hasValue = equals != std::string_view::npos && name.starts_with("--");
    const CLI::Option* option =
        hasValue && !optionsEnded ? line.get_option_no_throw(name) : nullptr;
    if (!option) {
      split.emplace_back(argument);
      continue;
    }
    if (option->get_expected_max() == 0) throw UsageError(name + " takes no value");
    split.push_back(name);
    split.emplace_back(argument.substr(equals + 1));
  }
  std::ranges::reverse(split);
  return split;
}

/// Puts CLI11's error into this tool's words. An unknown option is reported before all else,
/// because its value may have been counted as an operand.
UsageError UsageErrorFor(const CLI::App& line, const CLI::ParseError& error) {
  const std::vector<std::string> others = line.remaining();
  const std::string text = error.what();
  for (const std::string& other : others)
    if (other.starts_with('-'))
      return UsageError("there is no option " + other.substr(0, other.find('=')));
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error))
    return UsageError(text.substr(0, text.find(':')) + " needs a value");
  if (!others.empty()) return UsageError("'" + others.front() + "' is one too many");
  return UsageError(text);
}

/// Operands or options, in the order in which they were declared.
std::vector<const CLI::Option*> Declared(const CLI::App& line, bool areOperands) {
  return line.get_options([&](const CLI::Option* option) {
    return option->get_positional() == areOperands && option != line.get_help_ptr();
  });
}

std::string UsageOf(const CLI::App& line) {
  std::string usage;
  for (const CLI::Option* operand : Declared(line, true))
    usage += operand->get_name(true) + ' ';
  if (!Declared(line, false).empty()) return usage + "[OPTION...]";
  usage.pop_back();
  return usage;
}

void PrintHelp(std::ostream& out, const Command& command, const CLI::App& line) {
  out << "usage: kalvrin " << command.name << ' ' << UsageOf(line) << "\n\n" << command.details;
  const auto options = Declared(line, false);
  if (!options.empty()) out << "\noptions:\n";
  for (const CLI::Option* option : options) {
    const std::string value = option->get_type_name();
    PrintRow(out, 26, option->get_name() + (value.empty() ? "" : " " + value),
             option->get_description());
  }
}

}  // namespace

void AddOperand(CLI::App& line, const std::string& name, std::string& value) {
  line.add_option_function<std::string>(name,
                                        [name, &value](const std::string& text) {
                                          if (text.empty()) throw UsageError(name + " is empty");
                                          value = text;
                                        })
      ->required();
}

void AddOperands(CLI::App& line, const std::string& name, std::vector<std::string>& values) {
  line.add_option(name, values);
}

void AddOption(CLI::App& line, const std::string& name, const std::string& valueName,
               const std::string& help, const std::function<void(const std::string&)>& take) {
  const auto takeNamed = [name, take](const std::string& text) {
    try {
      take(text);
    } catch (const UsageError& error) {
      throw UsageError(name + ": " + error.what());
    }
  };
  line.add_option_function<std::string>(name, takeNamed, help)
      ->type_name(valueName)
      ->trigger_on_parse();
}

void AddCount(CLI::App& line, const std::string& name, std::uint64_t& value, std::uint64_t least,
              std::uint64_t most, const std::string& help, const std::string& valueName) {
  AddOption(line, name, valueName, help, [&value, least, most](const std::string& text) {
    value = ParseCount(text, least, most);
  });
}

void AddStreamSizes(CLI::App& line, Diagnosis::StreamRequest& sizes, bool withChannels) {
  if (withChannels)
    AddCount(line, "--channels", sizes.channelCount, 1, Diagnosis::mostChannels,
             "channels of the stream (default: as the model fixes them, else 2)");
  AddCount(line, "--sequence", sizes.sequenceSize, 1, Diagnosis::mostWindows,
           "windows per evaluation (default: the model's own, else 4)");
  AddCount(line, "--block", sizes.blockFrames, 1, Diagnosis::mostBlockFrames,
           "frames of a ProcessBlock call (default: one hop of the model)");
}

void AddFlag(CLI::App& line, const std::string& name, bool& isGiven, const std::string& help) {
  line.add_flag_callback(
          name, [&isGiven] { isGiven = true; }, help)
      ->trigger_on_parse();
}

void AddGains(CLI::App& line, const std::string& classOption, Gains& gains) {
  AddOption(line, classOption, "NAME=GAIN",
            "gain of one class, 0.5 or -6dB; again for further classes",
            [&](const std::string& text) { gains.classes.push_back(ParseClassGain(text)); });
  AddOption(line, "--rest", "GAIN", "gain of Rest, what no class claims (default 1)",
            [&](const std::string& text) { gains.rest = ParseGain(text); });
  AddOption(line, "--master", "GAIN", "gain of everything (default 1)",
            [&](const std::string& text) { gains.master = ParseGain(text); });
}

int RunCommand(const Command& command, Arguments arguments) {
  CLI::App line;
  const std::function<int()> run = command.declare(line);
  try {
    line.parse(SplitValues(line, arguments));
  } catch (const CLI::CallForHelp&) {
    PrintHelp(std::cout, command, line);
    return ExitStatus::Ok;
  } catch (const CLI::ParseError& error) {
    throw UsageErrorFor(line, error);
  }
  return run();
}

std::string UsageOf(const Command& command) {
  CLI::App line;
  (void)command.declare(line);
  return UsageOf(line);
}

void PrintHelp(std::ostream& out, const Command& command) {
  CLI::App line;
  (void)command.declare(line);
  PrintHelp(out, command, line);
}

void PrintRow(std::ostream& out, std::size_t column, const std::string& name,
              const std::string& text) {
  CLI::detail::format_help(out, name, text, column);
}

}  // namespace Orvik::Tesmo::Tool
