#include "juce/window.h"

#include "juce/processor.h"

namespace Orvik::Tesmo::Plugin {

std::unique_ptr<juce::AudioProcessorEditor> MakeWindow(Processor& processor) {
  return std::make_unique<juce::GenericAudioProcessorEditor>(processor);
}

}  // namespace Orvik::Tesmo::Plugin
