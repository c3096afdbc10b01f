#pragma once

#include <juce_audio_processors/juce_audio_processors.h>

#include <memory>

namespace Orvik::Tesmo::Plugin {

class Processor;

/// The window of a plugin and of the program. `processor` outlives it.
std::unique_ptr<juce::AudioProcessorEditor> MakeWindow(Processor& processor);

}  // namespace Orvik::Tesmo::Plugin
