#include "render/mix.h"

#include "command_line/errors.h"
#include "diagnosis/model_description.h"
#include "runtime/text.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr const char16_t* remainder = u"Rest";

/// Empty where `name` is no UTF-8: no class has such a name.
std::u16string WideName(const std::string& name) {
  try {
    return Dnn::Utf16FromUtf8(name);
  } catch (const std::range_error&) {
    return {};
  }
}

std::string NamesThereAre(const ModelFacts& facts) {
  std::string names;
  for (const std::string& name : facts.ClassNames())
    names += name + ", ";
  return names + "Rest";
}

std::string SafeFileName(std::string_view text) {
  constexpr std::size_t longest = 100;
  constexpr std::string_view troublesome = "/\\:*?\"<>|";
  std::string name;
  for (const char c : text) {
    const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
    name += control || troublesome.find(c) != std::string_view::npos ? '_' : c;
  }
  if (name.size() > longest) {
    std::size_t end = longest;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80)
      --end;  // not in the middle of a character
    name.resize(end);
  }
  // A leading dot hides the file, a leading dash looks like an option.
  if (name.empty() || name.front() == '.' || name.front() == '-') name.insert(0, 1, '_');
  return name;
}

}  // namespace

void SetMix(StreamProcessor& stream, const Gains& gains, const ModelFacts& facts) {
  stream.ResetGains();
  stream.SetMasterGain(gains.master);
  stream.SetAudioClassGain(remainder, gains.rest);
  for (const ClassGain& wish : gains.classes)
    if (!stream.SetAudioClassGain(WideName(wish.name).c_str(), wish.gain))
      throw UsageError("the model has no class '" + wish.name + "', only " + NamesThereAre(facts));
}

std::vector<Stem> StemsOf(const ModelFacts& facts) {
  std::vector<Stem> stems;
  const auto add = [&stems](const char16_t* name, bool isRemainder) {
    const bool isNew = std::ranges::none_of(stems, [name](const Stem& stem) {
      return Dnn::EqualIgnoringCase(stem.className.c_str(), name);
    });
    if (isNew) stems.push_back({PrintableText(name), name, isRemainder});
  };
  for (std::uint32_t id = 0; id < facts.info.GetAudioClassCount(); ++id)
    add(facts.info.GetAudioClassName(id), false);
  add(remainder, true);
  return stems;
}

void SetStem(StreamProcessor& stream, const Stem& stem) {
  stream.SetMasterGain(1);
  stream.SetAudioClassGain(stem.className.c_str(), 1);
}

std::string MixText(const Gains& gains, const ModelFacts& facts) {
  std::string text = "master " + GainText(gains.master);
  for (const Stem& stem : StemsOf(facts)) {
    float gain = Dnn::EqualIgnoringCase(stem.className.c_str(), remainder) ? gains.rest : 1;
    for (const ClassGain& wish : gains.classes)
      if (Dnn::EqualIgnoringCase(stem.className.c_str(), WideName(wish.name).c_str()))
        gain = wish.gain;
    text += ", " + stem.title + ' ' + GainText(gain);
  }
  return text;
}

std::vector<std::string> SafeFileNames(const std::vector<std::string>& texts) {
  std::set<std::string> used;
  std::vector<std::string> names;
  for (const std::string& text : texts) {
    const std::string plain = SafeFileName(text);
    std::string name = plain;
    for (int number = 2; !used.insert(LowerCase(name)).second; ++number)
      name = plain + "-" + std::to_string(number);
    names.push_back(name);
  }
  return names;
}

StemFolder::StemFolder(std::string folder) : path(std::move(folder)) {
  std::error_code error;
  isOurs = std::filesystem::create_directory(path, error);
  if (error) throw Refusal("cannot make the folder " + path + ": " + error.message());
}

StemFolder::~StemFolder() {
  std::error_code ignored;
  if (isOurs) std::filesystem::remove(path, ignored);  // fails where the folder is not empty
}

}  // namespace Orvik::Tesmo::Tool
