#pragma once

#include "juce/levels.h"

#include <juce_gui_basics/juce_gui_basics.h>

namespace Orvik::Tesmo::Plugin {

/// A bar from -60 to 0 dB of full scale: RMS filled, the peak pale above it, and a line where the
/// peak stood highest in the last two seconds. Upright where it is higher than wide.
class Meter final : public juce::Component {
public:
  explicit Meter(const juce::String& title);

  /// `seconds` since the last call.
  void Show(const Level& level, double seconds);
  float HeldPeakDb() const { return heldDb; }

  void paint(juce::Graphics& g) override;
  std::unique_ptr<juce::AccessibilityHandler> createAccessibilityHandler() override;

private:
  float peakDb, heldDb, rms = 0;
  double heldFor = 0;
};

/// "-12.3", or "-inf" at -100 and below.
juce::String DbText(float db);

}  // namespace Orvik::Tesmo::Plugin
