#pragma once

#include "juce/window/meter.h"

#include <juce_audio_processors/juce_audio_processors.h>

#include <optional>

namespace Orvik::Tesmo::Plugin {

/// A part of the sound: its fader with numbers to type, mute, solo and meter.
class Strip final : public juce::Component {
public:
  static constexpr int usualWidth = 104, leastWidth = 84;

  /// `mute` and `solo` are null for a strip that has none. `help` says what plays here.
  Strip(const juce::String& name, const juce::String& help, juce::RangedAudioParameter& gain,
        juce::RangedAudioParameter* mute, juce::RangedAudioParameter* solo,
        juce::UndoManager& undo);

  void Show(const Level& level, double seconds);
  /// Pale: another strip's solo silences this one.
  void SetSilenced(bool isSilenced);
  /// Draws the eye to the fader.
  void SetPointedAt(bool isPointedAt);
  juce::Slider& Fader() { return fader; }

  void resized() override;
  void paint(juce::Graphics& g) override;
  void lookAndFeelChanged() override;
  bool keyPressed(const juce::KeyPress& key) override;

private:
  void Attach(juce::TextButton& button, std::optional<juce::ButtonParameterAttachment>& attachment,
              juce::RangedAudioParameter* parameter, const juce::String& kind,
              const juce::String& help, juce::UndoManager& undo);

  juce::Label title;
  juce::Label held;
  juce::Slider fader;
  juce::TextButton mute{"M"}, solo{"S"};
  Meter meter;
  bool isPointedAt = false;
  std::optional<juce::SliderParameterAttachment> gainAttachment;
  std::optional<juce::ButtonParameterAttachment> muteAttachment, soloAttachment;
};

}  // namespace Orvik::Tesmo::Plugin
