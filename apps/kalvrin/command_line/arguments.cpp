#include "command_line/arguments.h"

#include <charconv>
#include <iomanip>
#include <ostream>
#include <sstream>

namespace Orvik::Tesmo::Tool {

std::optional<ArgumentReader::Item> ArgumentReader::Next() {
  if (rest.empty()) return std::nullopt;
  const std::string_view text = rest.front();
  rest = rest.subspan(1);
  if (optionsEnded || text == "-" || !text.starts_with('-')) return Item{false, text};
  if (text == "--") {
    optionsEnded = true;
    return Next();
  }
  const std::size_t equals = text.find('=');
  option = text.substr(0, equals);
  attached.reset();
  if (equals != std::string_view::npos) attached = text.substr(equals + 1);
  return Item{true, option};
}

std::string_view ArgumentReader::Value() {
  if (attached) return *attached;
  if (rest.empty()) throw UsageError(std::string(option) + " needs a value");
  const std::string_view value = rest.front();
  rest = rest.subspan(1);
  return value;
}

void ArgumentReader::ExpectNoValue() const {
  if (attached) throw UsageError(std::string(option) + " takes no value");
}

void ExpectOperands(const std::vector<std::string>& operands, std::string_view names) {
  std::istringstream words{std::string(names)};
  std::size_t count = 0;
  for (std::string name; words >> name; ++count) {
    if (count >= operands.size()) throw UsageError(name + " is missing");
    if (operands[count].empty()) throw UsageError(name + " is empty");
  }
  if (operands.size() > count) throw UsageError("'" + operands[count] + "' is one too many");
}

std::uint64_t ParseCount(std::string_view text, std::uint64_t least, std::uint64_t most) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size() || value < least || value > most)
    throw UsageError("'" + std::string(text) + "' is not a whole number from " +
                     std::to_string(least) + " to " + std::to_string(most));
  return value;
}

void PrintOption(std::ostream& out, std::string_view name, std::string_view value,
                 std::string_view help) {
  constexpr int column = 20;
  std::string left(name);
  if (!value.empty()) left.append(1, ' ').append(value);
  out << "  " << std::left << std::setw(column) << left << ' ' << help << '\n';
}

}  // namespace Orvik::Tesmo::Tool
