#include "hosting/description.h"

#include "runtime/text.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace Orvik::Tesmo::Hosting {
namespace {

constexpr std::string_view header = "kalvrin-plugin 1";
/// Above what any model has, below what overflows.
constexpr std::uint64_t mostFrames = 1 << 24, mostWindows = 1 << 20, mostRateHz = 1 << 20;

std::uint64_t Number(std::string_view text, std::uint64_t least, std::uint64_t most) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size() || value < least || value > most)
    throw std::runtime_error("'" + std::string(text) + "' is out of range");
  return value;
}

void TakeLine(Description& d, std::string_view key, std::string_view value) {
  if (key == "name")
    d.name = value;
  else if (key == "symbol")
    d.symbol = value;
  else if (key == "rate")
    d.sampleRateHz = static_cast<std::uint32_t>(Number(value, 0, mostRateHz));
  else if (key == "window")
    d.windowLength = Number(value, 2, mostFrames);
  else if (key == "lookahead")
    d.lookaheadBlocks = Number(value, 0, mostWindows);
  else if (key == "sequence")
    d.sequenceSize = Number(value, 1, mostWindows);
  else if (key == "any")
    d.takesAnyModel = Number(value, 0, 1) != 0;
  else if (key == "spread")
    d.isAlwaysSpread = Number(value, 0, 1) != 0;
  else if (key == "channels")
    d.channelCounts.push_back(static_cast<unsigned>(Number(value, 1, mostChannels)));
  else if (key == "class")
    d.classes.emplace_back(value);
  else
    throw std::runtime_error("there is no key '" + std::string(key) + "'");
}

Description Parse(std::istream& in) {
  std::string line;
  if (!std::getline(in, line) || line != header)
    throw std::runtime_error("it does not begin with '" + std::string(header) + "'");
  Description description;
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    const std::size_t space = std::min(line.find(' '), line.size());
    const std::string_view text = line;
    TakeLine(description, text.substr(0, space), text.substr(std::min(space + 1, line.size())));
  }
  const bool hasModel = description.windowLength != 0 && description.sequenceSize != 0;
  if (description.symbol.empty() || hasModel == description.takesAnyModel ||
      description.channelCounts.empty())
    throw std::runtime_error("symbol, window, sequence or channels is missing");
  if (description.ChunkFrames() > mostFrames) throw std::runtime_error("an evaluation is too long");
  return description;
}

}  // namespace

Description DescriptionOf(const Diagnosis::ModelFacts& facts, std::uint64_t sequenceSize) {
  Description d;
  d.sampleRateHz = static_cast<std::uint32_t>(std::max(facts.sampleRateHz, 0));
  d.windowLength = facts.layout.GetWindowLength();
  d.lookaheadBlocks = static_cast<std::uint64_t>(facts.lookahead);
  d.sequenceSize = facts.Settle({.sequenceSize = sequenceSize}).sequenceSize;
  std::vector<std::u16string> names = {u"Rest"};
  for (std::uint32_t id = 0; id < facts.info.GetAudioClassCount(); ++id) {
    const char16_t* const name = facts.info.GetAudioClassName(id);
    const bool isKnown = std::ranges::any_of(names, [name](const std::u16string& other) {
      return Dnn::EqualIgnoringCase(other.c_str(), name);
    });
    if (isKnown) continue;
    names.emplace_back(name);
    d.classes.push_back(Dnn::Utf8FromUtf16(name));
  }
  return d;
}

std::filesystem::path DescriptionPath(const std::filesystem::path& model) {
  return std::filesystem::path(model).replace_extension(".plugin");
}

std::string DescriptionText(const Description& d) {
  std::ostringstream out;
  out.exceptions(std::ios::badbit);  // or it would go on without memory
  out << header << "\nname " << d.name << "\nsymbol " << d.symbol << "\nspread " << d.isAlwaysSpread
      << '\n';
  if (d.takesAnyModel)
    out << "any 1\n";
  else
    out << "rate " << d.sampleRateHz << "\nwindow " << d.windowLength << "\nlookahead "
        << d.lookaheadBlocks << "\nsequence " << d.sequenceSize << '\n';
  for (const unsigned count : d.channelCounts)
    out << "channels " << count << '\n';
  for (const std::string& name : d.classes)
    out << "class " << name << '\n';
  return out.str();
}

Description ReadDescription(const std::filesystem::path& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot read " + file.string());
  try {
    return Parse(in);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(file.string() + ": " + error.what());
  }
}

}  // namespace Orvik::Tesmo::Hosting
