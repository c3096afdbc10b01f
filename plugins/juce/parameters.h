#pragma once

#include "wrapper/ports.h"

#include <juce_audio_processors/juce_audio_processors.h>

#include <functional>
#include <memory>
#include <string>

namespace Orvik::Tesmo::Plugin {

/// The parameter behind a control port, with the port's symbol as its id; null for a port that no
/// host turns. `currentName`: of a gain, asked for whenever a host wants it.
std::unique_ptr<juce::RangedAudioParameter>
MakeParameter(const Port& port, std::function<juce::String()> currentName);

/// An on and off parameter.
std::unique_ptr<juce::RangedAudioParameter> MakeSwitch(const juce::String& id,
                                                       std::function<juce::String()> currentName);

}  // namespace Orvik::Tesmo::Plugin
