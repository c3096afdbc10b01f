#include "juce/window/meter.h"

#include "juce/window/look.h"

#include <juce_audio_basics/juce_audio_basics.h>

#include <utility>

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr float silentDb = -100, lowestShownDb = -60;
constexpr double holdSeconds = 2;
constexpr float fallDbPerSecond = 24;

float ShareOf(float db) {
  return juce::jlimit(0.0F, 1.0F, 1 - db / lowestShownDb);
}

}  // namespace

juce::String DbText(float db) {
  return db <= silentDb ? juce::String("-inf") : juce::String(db, 1);
}

Meter::Meter(const juce::String& title) : peakDb(silentDb), heldDb(silentDb) {
  setTitle(title);
  setInterceptsMouseClicks(false, false);
}

void Meter::Show(const Level& level, double seconds) {
  const float db = juce::Decibels::gainToDecibels(level.peak, silentDb);
  peakDb = juce::jmax(db, peakDb - fallDbPerSecond * static_cast<float>(seconds), silentDb);
  heldFor += seconds;
  if (db >= heldDb || heldFor > holdSeconds) {
    heldDb = juce::jmax(db, peakDb);
    heldFor = 0;
  }
  rms = level.rms;
  repaint();
}

void Meter::paint(juce::Graphics& g) {
  const Palette& palette = Look::Of(*this).Colours();
  const auto area = getLocalBounds().toFloat();
  const bool isUpright = area.getHeight() > area.getWidth();
  const auto part = [&](float from, float to) {  // shares from the quiet end
    return isUpright ? area.withTop(area.getBottom() - to * area.getHeight())
                           .withBottom(area.getBottom() - from * area.getHeight())
                     : area.withLeft(area.getX() + from * area.getWidth())
                           .withRight(area.getX() + to * area.getWidth());
  };
  g.setColour(palette.well);
  g.fillRect(area);
  const float filled = ShareOf(juce::Decibels::gainToDecibels(rms, silentDb));
  const float peak = ShareOf(peakDb);
  const std::pair<float, juce::Colour> zones[] = {
      {-9, palette.level}, {-1, palette.high}, {0, palette.clips}};
  float from = 0;
  for (const auto& [toDb, colour] : zones) {
    const float to = ShareOf(toDb);
    g.setColour(colour);
    if (filled > from) g.fillRect(part(from, juce::jmin(to, filled)));
    g.setColour(colour.withAlpha(0.45F));
    if (const float pale = juce::jmax(from, filled); pale < juce::jmin(to, peak))
      g.fillRect(part(pale, juce::jmin(to, peak)));
    from = to;
  }
  if (const float held = ShareOf(heldDb); held > 0) {
    const float thin = 2 / (isUpright ? area.getHeight() : area.getWidth());
    g.setColour(heldDb >= -1 ? palette.clips : palette.text.withAlpha(0.75F));
    g.fillRect(part(juce::jmax(0.0F, held - thin), held));
  }
}

std::unique_ptr<juce::AccessibilityHandler> Meter::createAccessibilityHandler() {
  struct Value final : juce::AccessibilityValueInterface {
    explicit Value(const Meter& meter) : meter(meter) {}
    bool isReadOnly() const override { return true; }
    double getCurrentValue() const override { return meter.peakDb; }
    void setValue(double) override {}
    void setValueAsString(const juce::String&) override {}
    AccessibleValueRange getRange() const override { return {{silentDb, 0}, 1}; }
    juce::String getCurrentValueAsString() const override { return DbText(meter.peakDb) + " dB"; }
    const Meter& meter;
  };
  return std::make_unique<juce::AccessibilityHandler>(
      *this, juce::AccessibilityRole::progressBar, juce::AccessibilityActions(),
      juce::AccessibilityHandler::Interfaces(std::make_unique<Value>(*this)));
}

}  // namespace Orvik::Tesmo::Plugin
