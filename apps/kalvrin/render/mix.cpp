#include "render/mix.h"

#include "command_line/errors.h"
#include "diagnosis/model_description.h"
#include "runtime/text.h"

#include <algorithm>
#include <stdexcept>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr const char16_t* remainder = u"Rest";

/// Empty where `name` is no UTF-8, and so no class.
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

}  // namespace

void SetMix(StreamProcessor& stream, const RenderSettings& settings, const ModelFacts& facts) {
  stream.ResetGains();
  stream.SetMasterGain(settings.master);
  stream.SetAudioClassGain(remainder, settings.rest);
  for (const ClassGain& wish : settings.classGains)
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

std::string MixText(const RenderSettings& settings, const ModelFacts& facts) {
  std::string text = "master " + GainText(settings.master);
  for (const Stem& stem : StemsOf(facts)) {
    float gain = Dnn::EqualIgnoringCase(stem.className.c_str(), remainder) ? settings.rest : 1;
    for (const ClassGain& wish : settings.classGains)
      if (Dnn::EqualIgnoringCase(stem.className.c_str(), WideName(wish.name).c_str()))
        gain = wish.gain;
    text += ", " + stem.title + ' ' + GainText(gain);
  }
  return text;
}

}  // namespace Orvik::Tesmo::Tool
