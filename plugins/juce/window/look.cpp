#include "juce/window/look.h"

namespace Orvik::Tesmo::Plugin {
namespace {

using juce::Colour;

const Palette light = {Colour(0xfffcfcfa), Colour(0xfff3f2f0), Colour(0xffe6e5e4),
                       Colour(0xff1c1c20), Colour(0xff5a5a66), Colour(0xffd5d5dc),
                       Colour(0xff7a1f5c), Colour(0xffffffff), Colour(0xff2f8a72),
                       Colour(0xffc98a12), Colour(0xffc8372d), Colour(0xffa94438),
                       Colour(0xff7a5b00)};
const Palette dark = {Colour(0xff16161a), Colour(0xff1f1f25), Colour(0xff2c2c34),
                      Colour(0xffececf0), Colour(0xffa4a4b2), Colour(0xff3a3a44),
                      Colour(0xffee8fc4), Colour(0xff16161a), Colour(0xff58b89c),
                      Colour(0xffe0b050), Colour(0xffe8685c), Colour(0xffef8e80),
                      Colour(0xffe8c55a)};

constexpr float cornerSize = 5;

/// The first that is installed; empty: what the library takes.
juce::String FirstFamilyOf(const juce::StringArray& wanted) {
  const juce::StringArray installed = juce::Font::findAllTypefaceNames();
  for (const auto& name : wanted)
    if (installed.contains(name)) return name;
  return {};
}

/// A button says in this property which colour it has when it is on.
Colour OnColour(const juce::Button& button, const Palette& palette) {
  const juce::String kind = button.getProperties()["kind"].toString();
  return kind == "mute" ? palette.mute : kind == "solo" ? palette.solo : palette.accent;
}

}  // namespace

Look::Look() : family(FirstFamilyOf({"Inter", "Roboto", "Noto Sans", "Cantarell", "Ubuntu"})) {
  // also for what asks no look for its font
  if (family.isNotEmpty())
    for (juce::LookAndFeel* look :
         {static_cast<juce::LookAndFeel*>(this), &getDefaultLookAndFeel()})
      look->setDefaultSansSerifTypefaceName(family);
  Use(Appearance::Desktop);
}

void Look::Use(Appearance appearance) {
  const bool isDark =
      appearance == Appearance::Dark ||
      (appearance == Appearance::Desktop && juce::Desktop::getInstance().isDarkModeActive());
  palette = isDark ? dark : light;
  const Palette& p = palette;
  setColourScheme(
      {p.back, p.well, p.panel, p.line, p.text, p.accent, p.onAccent, p.accent, p.text});
  setColour(juce::TextButton::buttonColourId, p.back);
  setColour(juce::TextButton::textColourOffId, p.text);
  setColour(juce::TextButton::textColourOnId, p.onAccent);
  setColour(juce::Label::textColourId, p.text);
  setColour(juce::Label::textWhenEditingColourId, p.text);
  setColour(juce::Slider::textBoxTextColourId, p.text);
  setColour(juce::Slider::textBoxOutlineColourId, juce::Colours::transparentBlack);
  setColour(juce::TextEditor::textColourId, p.text);
  setColour(juce::TextEditor::highlightColourId, p.accent.withAlpha(0.35F));
  setColour(juce::TextEditor::highlightedTextColourId, p.text);
  setColour(juce::CaretComponent::caretColourId, p.accent);
  setColour(juce::ComboBox::backgroundColourId, p.back);
  setColour(juce::ComboBox::outlineColourId, p.line);
  setColour(juce::PopupMenu::backgroundColourId, p.panel);
  setColour(juce::PopupMenu::highlightedBackgroundColourId, p.accent);
  setColour(juce::PopupMenu::highlightedTextColourId, p.onAccent);
  setColour(juce::PopupMenu::headerTextColourId, p.soft);
  setColour(juce::ScrollBar::thumbColourId, p.soft.withAlpha(0.5F));
  setColour(juce::ListBox::backgroundColourId, p.back);
  setColour(juce::AlertWindow::backgroundColourId, p.panel);
  setColour(juce::ToggleButton::tickColourId, p.accent);
}

const Look& Look::Of(const juce::Component& component) {
  return dynamic_cast<const Look&>(component.getLookAndFeel());
}

juce::Font Look::Text(float height, bool isBold) const {
  juce::Font font(height, isBold ? juce::Font::bold : juce::Font::plain);
  if (family.isNotEmpty()) font.setTypefaceName(family);
  return font;
}

void Look::drawLinearSlider(juce::Graphics& g, int x, int y, int width, int height, float position,
                            float lowest, float highest, juce::Slider::SliderStyle style,
                            juce::Slider& slider) {
  const bool isVertical = style == juce::Slider::LinearVertical;
  const auto area = juce::Rectangle<int>(x, y, width, height).toFloat();
  const Colour hand = slider.isEnabled() ? palette.accent : palette.soft.withAlpha(0.4F);
  const auto track = isVertical ? area.withSizeKeepingCentre(4, area.getHeight())
                                : area.withSizeKeepingCentre(area.getWidth(), 4);
  g.setColour(palette.well);
  g.fillRoundedRectangle(track, 2);
  g.setColour(hand.withMultipliedAlpha(0.55F));
  g.fillRoundedRectangle(isVertical ? track.withTop(position) : track.withRight(position), 2);

  const bool isActive = slider.isMouseOverOrDragging() && slider.isEnabled();
  const auto knob = juce::Rectangle<float>(isVertical ? 26 : 12, isVertical ? 14 : 18)
                        .withCentre(isVertical ? juce::Point(area.getCentreX(), position)
                                               : juce::Point(position, area.getCentreY()));
  g.setColour(isActive ? hand.brighter(0.15F) : hand);
  g.fillRoundedRectangle(knob, 4);
  g.setColour(palette.onAccent.withAlpha(0.8F));
  if (isVertical)
    g.fillRect(knob.withSizeKeepingCentre(knob.getWidth() - 10, 1.5F));
  else
    g.fillRect(knob.withSizeKeepingCentre(1.5F, knob.getHeight() - 8));
  juce::ignoreUnused(lowest, highest);
}

juce::Label* Look::createSliderTextBox(juce::Slider& slider) {
  juce::Label* const box = LookAndFeel_V4::createSliderTextBox(slider);
  box->setFont(Text(14));
  box->setJustificationType(juce::Justification::centred);
  box->setMinimumHorizontalScale(0.8F);
  return box;
}

void Look::fillTextEditorBackground(juce::Graphics& g, int width, int height, juce::TextEditor&) {
  const auto area = juce::Rectangle<int>(width, height).toFloat();
  g.setColour(palette.well);
  g.fillRoundedRectangle(area, cornerSize);
}

void Look::drawButtonBackground(juce::Graphics& g, juce::Button& button, const Colour&, bool isOver,
                                bool isDown) {
  const auto area = button.getLocalBounds().toFloat().reduced(0.5F);
  const bool isOn = button.getToggleState();
  Colour fill = isOn ? OnColour(button, palette) : palette.back;
  if (isOver && button.isEnabled()) fill = fill.contrasting(isDown ? 0.16F : 0.07F);
  if (!button.isEnabled()) fill = fill.withMultipliedAlpha(0.5F);
  // buttons that touch are one shape
  const bool left = button.isConnectedOnLeft(), right = button.isConnectedOnRight();
  juce::Path shape;
  shape.addRoundedRectangle(area.getX(), area.getY(), area.getWidth(), area.getHeight(), cornerSize,
                            cornerSize, !left, !right, !left, !right);
  g.setColour(fill);
  g.fillPath(shape);
  const bool isMain = button.getProperties()["kind"].toString() == "main";
  g.setColour(isOn ? fill : isMain ? palette.accent : palette.line);
  g.strokePath(shape, juce::PathStrokeType(1));
}

void Look::drawButtonText(juce::Graphics& g, juce::TextButton& button, bool, bool) {
  const bool isMain = button.getProperties()["kind"].toString() == "main";
  const bool isOn = button.getToggleState();
  g.setFont(
      Text(juce::jmin(14.0F, static_cast<float>(button.getHeight()) * 0.55F), isMain || isOn));
  g.setColour((isOn     ? palette.onAccent
               : isMain ? palette.accent
                        : palette.text)
                  .withMultipliedAlpha(button.isEnabled() ? 1.0F : 0.4F));
  g.drawFittedText(button.getButtonText(), button.getLocalBounds().reduced(4, 0),
                   juce::Justification::centred, 1, 0.8F);
}

juce::AttributedString Look::TooltipText(const juce::String& text) const {
  juce::AttributedString string;
  string.setJustification(juce::Justification::centredLeft);
  string.append(text, Text(14), palette.text);
  return string;
}

juce::Rectangle<int> Look::getTooltipBounds(const juce::String& text, juce::Point<int> place,
                                            juce::Rectangle<int> area) {
  juce::TextLayout layout;
  layout.createLayout(TooltipText(text), 320);
  const int width = static_cast<int>(layout.getWidth()) + 22;  // rounded up, lest a word is broken
  const int height = static_cast<int>(layout.getHeight()) + 15;
  const bool isLeft = place.x > area.getCentreX(), isUp = place.y > area.getCentreY();
  return juce::Rectangle<int>(isLeft ? place.x - width - 12 : place.x + 14,
                              isUp ? place.y - height - 8 : place.y + 14, width, height)
      .constrainedWithin(area);
}

void Look::drawTooltip(juce::Graphics& g, const juce::String& text, int width, int height) {
  const auto area = juce::Rectangle<int>(width, height).toFloat();
  g.setColour(palette.panel);
  g.fillRect(area);
  g.setColour(palette.line);
  g.drawRect(area, 1);
  juce::TextLayout layout;
  layout.createLayout(TooltipText(text), static_cast<float>(width - 20));
  layout.draw(g, area.reduced(10, 7));
}

std::unique_ptr<juce::FocusOutline> Look::createFocusOutlineForComponent(juce::Component&) {
  struct Outline final : juce::FocusOutline::OutlineWindowProperties {
    explicit Outline(Colour colour) : colour(colour) {}
    juce::Rectangle<int> getOutlineBounds(juce::Component& component) override {
      return component.getScreenBounds().expanded(2);
    }
    void drawOutline(juce::Graphics& g, int width, int height) override {
      g.setColour(colour);
      g.drawRoundedRectangle(juce::Rectangle<int>(width, height).toFloat().reduced(1), cornerSize,
                             2);
    }
    Colour colour;
  };
  return std::make_unique<juce::FocusOutline>(std::make_unique<Outline>(palette.accent));
}

}  // namespace Orvik::Tesmo::Plugin
