#pragma once

// How everything in the window is drawn, light and dark.

#include <juce_gui_basics/juce_gui_basics.h>

namespace Orvik::Tesmo::Plugin {

/// The colours of one appearance.
struct Palette {
  juce::Colour back, panel, well;   // behind everything; of a group; of fields and scales
  juce::Colour text, soft, line;    // words; lesser words; borders
  juce::Colour accent, onAccent;    // what can be turned, and text on it
  juce::Colour level, high, clips;  // of meters: usual; from -9 dB; from -1 dB
  juce::Colour mute, solo;          // of buttons that are on, with onAccent on them
};

enum class Appearance { Desktop, Light, Dark };

class Look final : public juce::LookAndFeel_V4 {
public:
  Look();

  /// Desktop: as the desktop is now. Components have to be told by sendLookAndFeelChange.
  void Use(Appearance appearance);
  const Palette& Colours() const { return palette; }

  /// The look of a component of this window. The component stands in a parent that has one.
  static const Look& Of(const juce::Component& component);

  juce::Font Text(float height, bool isBold = false) const;

  void drawLinearSlider(juce::Graphics& g, int x, int y, int width, int height, float position,
                        float, float, juce::Slider::SliderStyle style,
                        juce::Slider& slider) override;
  int getSliderThumbRadius(juce::Slider&) override { return 9; }
  juce::Label* createSliderTextBox(juce::Slider& slider) override;
  void fillTextEditorBackground(juce::Graphics& g, int width, int height,
                                juce::TextEditor& editor) override;
  void drawTextEditorOutline(juce::Graphics&, int, int, juce::TextEditor&) override {}
  void drawButtonBackground(juce::Graphics& g, juce::Button& button, const juce::Colour&,
                            bool isOver, bool isDown) override;
  void drawButtonText(juce::Graphics& g, juce::TextButton& button, bool, bool) override;
  juce::Font getTextButtonFont(juce::TextButton&, int) override { return Text(14); }
  juce::Font getLabelFont(juce::Label& label) override { return label.getFont(); }
  juce::Font getPopupMenuFont() override { return Text(15); }
  juce::Font getComboBoxFont(juce::ComboBox&) override { return Text(14); }
  juce::Font getAlertWindowTitleFont() override { return Text(17, true); }
  juce::Font getAlertWindowMessageFont() override { return Text(15); }
  juce::Font getAlertWindowFont() override { return Text(14); }
  juce::Rectangle<int> getTooltipBounds(const juce::String& text, juce::Point<int> place,
                                        juce::Rectangle<int> area) override;
  void drawTooltip(juce::Graphics& g, const juce::String& text, int width, int height) override;
  std::unique_ptr<juce::FocusOutline>
  createFocusOutlineForComponent(juce::Component& component) override;

private:
  juce::AttributedString TooltipText(const juce::String& text) const;

  Palette palette;
  juce::String family;
};

}  // namespace Orvik::Tesmo::Plugin
