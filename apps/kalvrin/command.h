#pragma once

#include "command_line/arguments.h"

#include <iosfwd>
#include <span>
#include <string_view>

namespace Orvik::Tesmo::Tool {

/// One subcommand.
struct Command {
  std::string_view name;
  std::string_view operands;            // "MODEL IN OUT"
  std::string_view summary;             // one line for the list of commands
  std::string_view details;             // paragraphs for its own help, each line with its end
  void (*printOptions)(std::ostream&);  // null where it has none
  /// The exit status. Throws Refusal, UsageError, Interrupted, and what the library throws.
  int (*run)(Arguments);
};

extern const Command infoCommand;
extern const Command checkCommand;
extern const Command renderCommand;
extern const Command planCommand;
extern const Command adaptCommand;
extern const Command benchCommand;
extern const Command pluginCommand;
extern const Command pipewireCommand;

/// All of them, in the order of the help. A new subcommand is one more row in commands.cpp.
std::span<const Command* const> Commands();

}  // namespace Orvik::Tesmo::Tool
