#include "juce/parameters.h"

#include "hosting/description.h"

#include <cmath>
#include <utility>

namespace Orvik::Tesmo::Plugin {
namespace {

using juce::String;
using CurrentName = std::function<String()>;

/// A parameter whose name may change.
template <class Parameter>
class Renamed final : public Parameter {
public:
  template <class... Arguments>
  Renamed(CurrentName currentName, const String& id, Arguments&&... arguments)
      : Parameter(juce::ParameterID(id, 1), currentName(), std::forward<Arguments>(arguments)...),
        currentName(std::move(currentName)) {}

  String getName(int mostLetters) const override { return currentName().substring(0, mostLetters); }

private:
  CurrentName currentName;
};

/// Hundredths of a dB, so that a value that somebody types is exactly that value.
juce::NormalisableRange<float> DecibelRange() {
  using Hosting::lowestGainDb, Hosting::highestGainDb;
  return {lowestGainDb, highestGainDb,
          [](float low, float high, float share) { return low + share * (high - low); },
          [](float low, float high, float db) { return (db - low) / (high - low); },
          [](float low, float high, float db) {
            return juce::jlimit(low, high, std::round(db * 100) / 100);
          }};
}

String TextOfGain(float db, int) {
  return db <= Hosting::lowestGainDb ? String("mute") : String(db, 2) + " dB";
}

float GainOfText(const String& text) {
  return text.trim().startsWithIgnoreCase("mute") ? Hosting::lowestGainDb : text.getFloatValue();
}

std::unique_ptr<juce::RangedAudioParameter> Choice(const Port& port,
                                                   const juce::StringArray& choices) {
  return std::make_unique<juce::AudioParameterChoice>(juce::ParameterID(port.symbol, 1), port.name,
                                                      choices, 0);
}

}  // namespace

std::unique_ptr<juce::RangedAudioParameter> MakeParameter(const Port& port,
                                                          CurrentName currentName) {
  switch (port.role) {
  case Role::Master:
  case Role::Rest:
  case Role::ClassGain:
    return std::make_unique<Renamed<juce::AudioParameterFloat>>(
        std::move(currentName), port.symbol, DecibelRange(), port.initial,
        juce::AudioParameterFloatAttributes()
            .withStringFromValueFunction(TextOfGain)
            .withValueFromStringFunction(GainOfText));
  case Role::Bypass:
    return MakeSwitch(port.symbol, std::move(currentName));
  case Role::Mode:
    return Choice(port, {"Automatic", "Direct", "Spread"});
  case Role::HighBand:
    return Choice(port, {"Follow", "Rest"});
  default:
    return nullptr;
  }
}

std::unique_ptr<juce::RangedAudioParameter> MakeSwitch(const String& id, CurrentName currentName) {
  return std::make_unique<Renamed<juce::AudioParameterBool>>(std::move(currentName), id, false);
}

}  // namespace Orvik::Tesmo::Plugin
