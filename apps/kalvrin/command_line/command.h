#pragma once

// What a subcommand declares: its name, operands and options. CLI11 parses them and prints the
// help.

#include "command_line/errors.h"
#include "command_line/values.h"
#include "diagnosis/model_facts.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace Orvik::Tesmo::Tool {

using Arguments = std::span<const char* const>;

/// One subcommand.
struct Command {
  std::string_view name;
  std::string_view summary;  // one line for the list of commands
  std::string_view details;  // paragraphs for its own help, each line with its end
  /// Declares operands and options on `line`. Returns what runs the command once they are parsed;
  /// that returns the exit status, and throws Refusal, UsageError, Interrupted, and what the
  /// library throws.
  std::function<int()> (*declare)(CLI::App& line);
};

extern const Command infoCommand;
extern const Command checkCommand;
extern const Command renderCommand;
extern const Command planCommand;
extern const Command adaptCommand;
extern const Command benchCommand;
extern const Command pluginCommand;
extern const Command pipewireCommand;

/// A required operand, called `name` in the help. Operands are taken in the order of the calls.
/// `value` has to outlive the parsing, like everything below that is passed by reference.
void AddOperand(CLI::App& line, const std::string& name, std::string& value);

/// Any number of operands, also none, which the help calls `name`.
void AddOperands(CLI::App& line, const std::string& name, std::vector<std::string>& values);

/// An option with a value, which the help calls `valueName`: "--name value" or "--name=value".
/// `take` gets the value each time that the option is given. It throws UsageError for a bad one;
/// the user then reads the option's name before those words.
void AddOption(CLI::App& line, const std::string& name, const std::string& valueName,
               const std::string& help, const std::function<void(const std::string&)>& take);

/// An option with a whole number from `least` to `most`.
void AddCount(CLI::App& line, const std::string& name, std::uint64_t& value, std::uint64_t least,
              std::uint64_t most, const std::string& help, const std::string& valueName = "N");

/// --sequence and --block, and --channels where the audio does not decide it: the sizes of a
/// stream.
void AddStreamSizes(CLI::App& line, Diagnosis::StreamRequest& sizes, bool withChannels);

/// An option without a value.
void AddFlag(CLI::App& line, const std::string& name, bool& isGiven, const std::string& help);

/// --rest, --master, and the gain of one class as `classOption`.
void AddGains(CLI::App& line, const std::string& classOption, Gains& gains);

/// Parses `arguments`, those after the command's name, and runs the command, or prints its help
/// where they ask for it. Returns the exit status. Throws UsageError for what is not declared.
int RunCommand(const Command& command, Arguments arguments);

/// "MODEL IN OUT [OPTION...]", for the overview.
std::string UsageOf(const Command& command);

void PrintHelp(std::ostream& out, const Command& command);

/// One line of a list: "  name      text", the text in column `column`.
void PrintRow(std::ostream& out, std::size_t column, const std::string& name,
              const std::string& text);

}  // namespace Orvik::Tesmo::Tool
