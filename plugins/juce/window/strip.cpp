#include "juce/window/strip.h"

#include "juce/window/look.h"

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr int gap = 8, scaleWidth = 26;

}  // namespace

Strip::Strip(const juce::String& name, const juce::String& help, juce::RangedAudioParameter& gain,
             juce::RangedAudioParameter* muteParameter, juce::RangedAudioParameter* soloParameter,
             juce::UndoManager& undo)
    : fader(juce::Slider::LinearVertical, juce::Slider::TextBoxBelow), meter(name + " level") {
  setTitle(name);
  setComponentID(name);
  setFocusContainerType(FocusContainerType::focusContainer);
  title.setText(name, juce::dontSendNotification);
  title.setJustificationType(juce::Justification::centred);
  title.setMinimumHorizontalScale(0.75F);
  title.setTooltip(help);
  held.setJustificationType(juce::Justification::centred);
  held.setTooltip("The highest peak of the last two seconds, in dB of full scale");
  held.setAccessible(false);

  gainAttachment.emplace(gain, fader, &undo);
  fader.setTitle(name + " gain");
  fader.setDescription(help);
  fader.setTooltip("Drag, turn the wheel, press the arrow keys, or type the number below. "
                   "A double click is 0 dB.");
  fader.setTextBoxStyle(juce::Slider::TextBoxBelow, false, 76, 24);
  fader.setDoubleClickReturnValue(true, 0);
  fader.setWantsKeyboardFocus(true);
  fader.setHasFocusOutline(true);
  fader.setSliderSnapsToMousePosition(false);

  for (juce::Component* child :
       {static_cast<juce::Component*>(&title), static_cast<juce::Component*>(&held),
        static_cast<juce::Component*>(&fader), static_cast<juce::Component*>(&meter)})
    addAndMakeVisible(child);
  Attach(mute, muteAttachment, muteParameter, "mute", "Mute " + name, undo);
  Attach(solo, soloAttachment, soloParameter, "solo", "Hear only " + name, undo);
}

void Strip::Attach(juce::TextButton& button,
                   std::optional<juce::ButtonParameterAttachment>& attachment,
                   juce::RangedAudioParameter* parameter, const juce::String& kind,
                   const juce::String& help, juce::UndoManager& undo) {
  if (!parameter) return;
  button.setClickingTogglesState(true);
  attachment.emplace(*parameter, button, &undo);
  button.getProperties().set("kind", kind);
  button.setTitle(help);
  button.setTooltip(help + " (" + button.getButtonText() + ")");
  button.setHasFocusOutline(true);
  addAndMakeVisible(button);
}

void Strip::Show(const Level& level, double seconds) {
  meter.Show(level, seconds);
  held.setText(DbText(meter.HeldPeakDb()), juce::dontSendNotification);
}

void Strip::SetSilenced(bool isSilenced) {
  fader.setAlpha(isSilenced ? 0.45F : 1.0F);
  meter.setAlpha(isSilenced ? 0.45F : 1.0F);
}

void Strip::SetPointedAt(bool pointedAt) {
  if (isPointedAt == pointedAt) return;
  isPointedAt = pointedAt;
  repaint();
}

void Strip::lookAndFeelChanged() {
  const Look& look = Look::Of(*this);
  title.setFont(look.Text(15, true));
  held.setFont(look.Text(12));
  held.setColour(juce::Label::textColourId, look.Colours().soft);
}

bool Strip::keyPressed(const juce::KeyPress& key) {
  const juce::juce_wchar letter = juce::CharacterFunctions::toLowerCase(key.getTextCharacter());
  if (key.getModifiers().isAnyModifierKeyDown()) return false;
  if (letter == 'm' && muteAttachment) return mute.triggerClick(), true;
  if (letter == 's' && soloAttachment) return solo.triggerClick(), true;
  return false;
}

void Strip::resized() {
  auto area = getLocalBounds().reduced(gap);
  title.setBounds(area.removeFromTop(22));
  area.removeFromTop(4);
  auto buttons = area.removeFromTop(24).withSizeKeepingCentre(soloAttachment ? 60 : 28, 24);
  mute.setBounds(buttons.removeFromLeft(28));
  solo.setBounds(buttons.removeFromRight(28));
  area.removeFromTop(gap);
  auto right = area.withTrimmedLeft(area.getWidth() - 24);
  // beside the fader's travel, which the thumb's half height ends at both ends
  held.setBounds(getWidth() - 48, area.getY() - 4, 46, 16);
  right = right.withTrimmedTop(18).withTrimmedBottom(24 + 9);
  meter.setBounds(right.withSizeKeepingCentre(10, right.getHeight()));
  fader.setBounds(area.withTrimmedLeft(0).withTrimmedTop(9));
}

void Strip::paint(juce::Graphics& g) {
  const Look& look = Look::Of(*this);
  const Palette& palette = look.Colours();
  const auto area = getLocalBounds().toFloat();
  g.setColour(palette.panel);
  g.fillRoundedRectangle(area, 8);
  if (isPointedAt) {
    g.setColour(palette.accent);
    g.drawRoundedRectangle(area.reduced(1), 8, 2);
  }
  g.setFont(look.Text(11));
  for (const int db : {12, 0, -12, -24, -36, -48, -60}) {
    const auto y = static_cast<float>(fader.getY() + fader.getPositionOfValue(db));
    const bool isZero = db == 0;
    g.setColour(palette.soft.withAlpha(isZero ? 1.0F : 0.75F));
    g.drawText(db > 0      ? "+" + juce::String(db)
               : db == -60 ? juce::String("off")
                           : juce::String(db),
               juce::Rectangle<float>(4, y - 7, scaleWidth, 14), juce::Justification::centredRight);
    g.setColour(isZero ? palette.soft : palette.line);
    const float centre = static_cast<float>(fader.getBounds().getCentreX());
    g.fillRect(juce::Rectangle<float>(centre - 16, y - 0.5F, 32, 1));
  }
}

}  // namespace Orvik::Tesmo::Plugin
