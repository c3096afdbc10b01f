#include "adapt/state_pairs.h"

#include "command_line/errors.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace Orvik::Tesmo::Tool {
namespace {

enum class CharacterKind { Letter, Digit, Other };

CharacterKind KindOf(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return std::isalpha(byte)   ? CharacterKind::Letter
         : std::isdigit(byte) ? CharacterKind::Digit
                              : CharacterKind::Other;
}

/// In lower case, split at punctuation, between letters and digits, and before capitals.
std::vector<std::string> Words(const std::string& name) {
  std::vector<std::string> words;
  CharacterKind last = CharacterKind::Other;
  bool lastIsLower = false;
  for (const char c : name) {
    const CharacterKind kind = KindOf(c);
    const bool isUpper = std::isupper(static_cast<unsigned char>(c)) != 0;
    if (kind != CharacterKind::Other) {
      if (kind != last || (isUpper && lastIsLower)) words.emplace_back();
      words.back() += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    last = kind;
    lastIsLower = kind == CharacterKind::Letter && !isUpper;
  }
  return words;
}

std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words)
    text += word + ' ';
  return text;
}

/// The name without the words that tell in from out; empty where nothing else is in it.
std::string Stem(const std::string& name) {
  static constexpr std::array<std::string_view, 25> sides = {
      "in",      "input", "inputs", "i",      "prev",    "previous", "old",  "past", "last",
      "init",    "begin", "out",    "output", "outputs", "o",        "next", "new",  "present",
      "updated", "end",   "final",  "cur",    "curr",    "current",  "n"};
  std::vector<std::string> words = Words(name);
  std::erase_if(
      words, [](const std::string& word) { return std::ranges::find(sides, word) != sides.end(); });
  return Joined(words);
}

/// "h0" becomes "hn", as recurrent layers call their first and last state.
std::string LastOfFirst(const std::string& input) {
  std::vector<std::string> words = Words(input);
  const auto zero = std::ranges::find(words, "0");
  if (zero == words.end() || zero == words.begin()) return {};
  *(zero - 1) += 'n';
  words.erase(zero);
  return Joined(words);
}

bool Fit(const SourceTensor& input, const SourceTensor& output) {
  if (input.kind != output.kind) return false;
  if (!output.hasShape) return true;
  return std::ranges::equal(input.shape, output.shape, [](const auto& a, const auto& b) {
    return a.size == b.size || a.size == 0 || b.size == 0;
  });
}

std::string List(const std::vector<SourceTensor>& tensors) {
  std::string text;
  for (const SourceTensor& tensor : tensors)
    text += (text.empty() ? "" : ", ") + SourceTensorText(tensor);
  return text.empty() ? "none" : text;
}

SourceTensor Take(std::vector<SourceTensor>& from, const std::string& name, const char* side) {
  const auto place = std::ranges::find(from, name, &SourceTensor::name);
  if (place == from.end())
    throw Refusal("there is no " + std::string(side) + " '" + name +
                  "' that could be a state among " + List(from));
  SourceTensor taken = *place;
  from.erase(place);
  return taken;
}

void TakeByName(std::vector<SourceTensor>& inputs, std::vector<SourceTensor>& outputs,
                std::vector<StatePair>& pairs) {
  const auto belongs = [](const SourceTensor& a, const SourceTensor& b) {
    return Fit(a, b) && NamesPair(a.name, b.name);
  };
  for (std::size_t i = 0; i < inputs.size();) {
    const SourceTensor& input = inputs[i];
    const auto isPartner = [&](const SourceTensor& output) { return belongs(input, output); };
    const auto partner = std::ranges::find_if(outputs, isPartner);
    const bool isUnique = partner != outputs.end() &&
                          std::ranges::count_if(outputs, isPartner) == 1 &&
                          std::ranges::count_if(inputs, [&](const SourceTensor& other) {
                            return belongs(other, *partner);
                          }) == 1;
    if (!isUnique) {
      ++i;
      continue;
    }
    pairs.push_back({input, *partner});
    outputs.erase(partner);
    inputs.erase(inputs.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

}  // namespace

bool NamesPair(const std::string& input, const std::string& output) {
  const std::string stem = Stem(input);
  return (!stem.empty() && stem == Stem(output)) || LastOfFirst(input) == Joined(Words(output));
}

std::vector<StatePair> PairStates(std::vector<SourceTensor> inputs,
                                  std::vector<SourceTensor> outputs,
                                  const std::vector<std::pair<std::string, std::string>>& named) {
  std::vector<StatePair> pairs;
  for (const auto& [in, out] : named) {
    pairs.push_back({Take(inputs, in, "input"), Take(outputs, out, "output")});
    if (!Fit(pairs.back().input, pairs.back().output))
      throw Refusal("the state " + SourceTensorText(pairs.back().input) + " cannot become " +
                    SourceTensorText(pairs.back().output) + ": type or size differs");
  }
  TakeByName(inputs, outputs, pairs);
  if (inputs.size() == 1 && outputs.size() == 1 && Fit(inputs[0], outputs[0])) {
    pairs.push_back({inputs[0], outputs[0]});
    inputs.clear();
    outputs.clear();
  }
  if (!inputs.empty() || !outputs.empty())
    throw Refusal(
        "inputs and outputs do not pair up as states by their names: left are the inputs " +
        List(inputs) + " and the outputs " + List(outputs) +
        ". Pair them with --state IN:OUT; an input that is no state cannot be adapted");
  for (const StatePair& pair : pairs)
    if (!pair.input.hasShape)
      throw Refusal("the state " + SourceTensorText(pair.input) +
                    "; its sizes have to be declared");
  return pairs;
}

}  // namespace Orvik::Tesmo::Tool
