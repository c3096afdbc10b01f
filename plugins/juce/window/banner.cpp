#include "juce/window/banner.h"

#include "juce/window/look.h"

#include <utility>

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr int padding = 10, gap = 8, buttonHeight = 26;

}  // namespace

Banner::Banner() {
  act.getProperties().set("kind", "main");
  for (auto* button : {&act, &close}) {
    addChildComponent(*button);
    button->setHasFocusOutline(true);
  }
  // a copy, since the function may change the banner
  act.onClick = [this] {
    if (const auto f = onAct) f();
  };
  close.onClick = [this] {
    if (const auto f = onClose) f();
  };
}

void Banner::Say(Kind newKind, const juce::String& newText, const juce::String& actionText,
                 std::function<void()> action, std::function<void()> whenClosed) {
  const bool isNews = newText != text && newKind != Kind::Quiet;
  kind = newKind;
  text = newText;
  onAct = std::move(action);
  onClose = std::move(whenClosed);
  act.setButtonText(actionText);
  act.setVisible(onAct != nullptr);
  close.setVisible(onClose != nullptr);
  setTitle(text);
  resized();
  repaint();
  if (isNews)
    juce::AccessibilityHandler::postAnnouncement(
        text, kind == Kind::Fault ? juce::AccessibilityHandler::AnnouncementPriority::high
                                  : juce::AccessibilityHandler::AnnouncementPriority::medium);
}

juce::AttributedString Banner::Words() const {
  const Look& look = Look::Of(*this);
  juce::AttributedString words;
  words.setJustification(juce::Justification::centredLeft);
  words.append(text, look.Text(15),
               kind == Kind::Quiet ? look.Colours().soft : look.Colours().text);
  return words;
}

int Banner::ButtonsWidth() const {
  const Look& look = Look::Of(*this);
  int width = 0;
  for (const auto* button : {&act, &close})
    if (button->isVisible())
      width += gap + 28 + look.Text(14, true).getStringWidth(button->getButtonText());
  return width;
}

int Banner::HeightFor(int width) const {
  juce::TextLayout layout;
  const int side = kind == Kind::Quiet ? 0 : padding;
  layout.createLayout(Words(), static_cast<float>(width - 2 * side - ButtonsWidth()));
  const int words = juce::roundToInt(layout.getHeight());
  return kind == Kind::Quiet ? words + 4 : juce::jmax(words, buttonHeight) + 2 * padding;
}

void Banner::resized() {
  auto area = getLocalBounds().reduced(padding);
  for (auto* button : {&close, &act})
    if (button->isVisible()) {
      const int width = 28 + Look::Of(*this).Text(14, true).getStringWidth(button->getButtonText());
      button->setBounds(area.removeFromRight(width).withSizeKeepingCentre(width, buttonHeight));
      area.removeFromRight(gap);
    }
}

void Banner::paint(juce::Graphics& g) {
  const Palette& palette = Look::Of(*this).Colours();
  auto area = getLocalBounds();
  if (kind != Kind::Quiet) {
    const auto colour = kind == Kind::Fault ? palette.clips : palette.accent;
    g.setColour(colour.withAlpha(0.10F));
    g.fillRoundedRectangle(area.toFloat(), 8);
    g.setColour(colour);
    g.fillRoundedRectangle(area.toFloat().withWidth(4), 2);
    area = area.reduced(padding);
    area.removeFromLeft(4);
  }
  area.removeFromRight(ButtonsWidth());
  Words().draw(g, area.toFloat());
}

std::unique_ptr<juce::AccessibilityHandler> Banner::createAccessibilityHandler() {
  return std::make_unique<juce::AccessibilityHandler>(*this, juce::AccessibilityRole::staticText);
}

}  // namespace Orvik::Tesmo::Plugin
