#pragma once

// Options and operands of a subcommand. Its options are a table, from which both the parsing and
// the help follow.

#include "command_line/errors.h"

#include <algorithm>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Orvik::Tesmo::Tool {

using Arguments = std::span<const char* const>;

/// One row of a subcommand's table. `value` is the placeholder that the help shows; an empty one
/// makes a flag, whose `set` gets an empty text. `set` throws UsageError for a bad value.
template <class Settings>
struct Option {
  std::string_view name, value, help;
  void (*set)(Settings&, std::string_view value);
};

/// Tells options from operands: "--name value" and "--name=value" are the same, "--" ends the
/// options, "-" is an operand.
class ArgumentReader {
public:
  struct Item {
    bool isOption = false;
    std::string_view text;  // the operand, or the option's name with its dashes
  };

  explicit ArgumentReader(Arguments all) : rest(all) {}

  /// Nothing at the end.
  std::optional<Item> Next();

  /// The value of the option that Next gave. UsageError where there is none.
  std::string_view Value();

  /// UsageError where the option that Next gave, a flag, came with "=value".
  void ExpectNoValue() const;

private:
  Arguments rest;
  bool optionsEnded = false;
  std::string_view option;
  std::optional<std::string_view> attached;
};

/// Puts the options into `settings` and gives the operands. UsageError for an unknown option, a
/// missing value, or what a row's `set` refuses.
template <class Settings>
std::vector<std::string>
ParseArguments(Arguments arguments, std::span<const Option<Settings>> options, Settings& settings) {
  std::vector<std::string> operands;
  ArgumentReader reader(arguments);
  while (const auto item = reader.Next()) {
    if (!item->isOption) {
      operands.emplace_back(item->text);
      continue;
    }
    const auto row = std::ranges::find(options, item->text, &Option<Settings>::name);
    if (row == options.end()) throw UsageError("there is no option " + std::string(item->text));
    if (row->value.empty()) {
      reader.ExpectNoValue();
      row->set(settings, {});
      continue;
    }
    const std::string_view value = reader.Value();
    try {
      row->set(settings, value);
    } catch (const UsageError& error) {
      throw UsageError(std::string(row->name) + ": " + error.what());
    }
  }
  return operands;
}

/// UsageError unless there is one operand for each word of `names` ("MODEL IN OUT").
void ExpectOperands(const std::vector<std::string>& operands, std::string_view names);

/// A whole number from `least` to `most`. UsageError.
std::uint64_t ParseCount(std::string_view text, std::uint64_t least, std::uint64_t most);

/// One line of an option list, the help text in a column of its own.
void PrintOption(std::ostream& out, std::string_view name, std::string_view value,
                 std::string_view help);

template <class Settings>
void PrintOptions(std::ostream& out, std::span<const Option<Settings>> options) {
  for (const auto& row : options)
    PrintOption(out, row.name, row.value, row.help);
}

}  // namespace Orvik::Tesmo::Tool
