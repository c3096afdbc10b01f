#include "juce/window/spectrogram.h"

#include "juce/window/look.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr int columns = 600, rows = 128;
constexpr double columnsPerSecond = 60;
constexpr double lowestHz = 50, highestHz = 20000;
constexpr float faintestDb = -100, loudestDb = -20;

double MelOf(double hz) {
  return 1127 * std::log1p(hz / 700);
}

double HzOf(double mel) {
  return 700 * std::expm1(mel / 1127);
}

/// From black over purple and orange to pale yellow, in even steps of lightness.
juce::Colour ColourOf(float level) {
  static const std::array<juce::Colour, 256> colours = [] {
    constexpr std::array<juce::uint32, 8> stops = {0xff000004, 0xff281159, 0xff651a80, 0xffa02f7f,
                                                   0xffdb476a, 0xfffb7f61, 0xfffec287, 0xfffcfdbf};
    std::array<juce::Colour, 256> made;
    for (std::size_t i = 0; i < made.size(); ++i) {
      const float place = static_cast<float>(i) / 255 * (stops.size() - 1);
      const auto below = std::min(static_cast<std::size_t>(place), stops.size() - 2);
      made[i] =
          juce::Colour(stops[below])
              .interpolatedWith(juce::Colour(stops[below + 1]), place - static_cast<float>(below));
    }
    return made;
  }();
  return colours[static_cast<std::size_t>(juce::jlimit(0.0F, 1.0F, level) * 255)];
}

}  // namespace

Spectrogram::Spectrogram(const juce::String& title) : image(juce::Image::RGB, columns, rows, true) {
  setTitle(title);
  setOpaque(true);
  setInterceptsMouseClicks(false, false);
}

void Spectrogram::Begin(double newRateHz) {
  rateHz = newRateHz;
  // about 40 ms
  const auto length =
      static_cast<std::size_t>(juce::nextPowerOfTwo(static_cast<int>(std::ceil(rateHz * 0.03))));
  transform = CreateSpectralTransform(length);
  window.resize(length);
  for (std::size_t n = 0; n < length; ++n)
    window[n] = static_cast<float>((1 - std::cos(2 * std::numbers::pi * static_cast<double>(n) /
                                                 static_cast<double>(length))) *
                                   2 / static_cast<double>(length));
  recent.assign(length, 0);
  spectrum.assign(length + 2, 0);
  hop = static_cast<std::size_t>(rateHz / columnsPerSecond);
  fresh = 0;
  const double top = std::min(highestHz, rateHz / 2);
  firstBin.clear();
  for (int row = 0; row <= rows; ++row) {
    const double mel = MelOf(lowestHz) + (MelOf(top) - MelOf(lowestHz)) * row / rows;
    firstBin.push_back(std::min(
        static_cast<std::size_t>(std::lround(HzOf(mel) / rateHz * static_cast<double>(length))),
        length / 2));
  }
  column = 0;
  image.clear(image.getBounds(), ColourOf(0));
  repaint();
}

void Spectrogram::Push(const float* samples, std::size_t count) {
  if (!transform) return;
  while (count > 0) {
    const std::size_t n = std::min(count, hop - fresh);
    const std::size_t kept = std::min(n, recent.size());
    std::move(recent.begin() + static_cast<std::ptrdiff_t>(kept), recent.end(), recent.begin());
    std::copy_n(samples + n - kept, kept, recent.end() - static_cast<std::ptrdiff_t>(kept));
    samples += n;
    count -= n;
    fresh += n;
    if (fresh == hop) AddColumn();
  }
  repaint();
}

void Spectrogram::AddColumn() {
  fresh = 0;
  for (std::size_t n = 0; n < recent.size(); ++n)
    spectrum[n] = recent[n] * window[n];
  transform->ForwardInPlace(spectrum.data());
  const juce::Image::BitmapData pixels(image, column, 0, 1, rows,
                                       juce::Image::BitmapData::writeOnly);
  for (std::size_t row = 0; row < rows; ++row) {
    float power = 0;
    const std::size_t end = std::max(firstBin[row + 1], firstBin[row] + 1);
    for (std::size_t bin = firstBin[row]; bin < end; ++bin)
      power = std::max(power, spectrum[2 * bin] * spectrum[2 * bin] +
                                  spectrum[2 * bin + 1] * spectrum[2 * bin + 1]);
    const float db = 10 * std::log10(power + 1e-12F);
    pixels.setPixelColour(0, static_cast<int>(rows - 1 - row),
                          ColourOf((db - faintestDb) / (loudestDb - faintestDb)));
  }
  column = (column + 1) % columns;
}

float Spectrogram::RowOf(double hz) const {
  const double low = MelOf(lowestHz), top = MelOf(std::min(highestHz, rateHz / 2));
  return static_cast<float>((MelOf(hz) - low) / (top - low));
}

void Spectrogram::paint(juce::Graphics& g) {
  const int width = getWidth(), height = getHeight();
  const int old = juce::roundToInt(static_cast<double>(width) * (columns - column) / columns);
  g.setImageResamplingQuality(juce::Graphics::mediumResamplingQuality);
  g.drawImage(image, 0, 0, old, height, column, 0, columns - column, rows);
  if (column > 0) g.drawImage(image, old, 0, width - old, height, 0, 0, column, rows);
  if (rateHz <= 0) return;
  g.setFont(Look::Of(*this).Text(11));
  for (const auto& [hz, text] :
       {std::pair{250.0, "250 Hz"}, {1000.0, "1 kHz"}, {4000.0, "4 kHz"}, {12000.0, "12 kHz"}}) {
    if (hz > rateHz / 2) break;
    const auto y = static_cast<float>(height) * (1 - RowOf(hz));
    g.setColour(juce::Colours::white.withAlpha(0.12F));
    g.fillRect(0.0F, y, static_cast<float>(width), 1.0F);
    const auto label = juce::Rectangle<float>(
        4, y - 15, 10 + 6 * static_cast<float>(juce::String(text).length()), 14);
    g.setColour(juce::Colours::black.withAlpha(0.55F));
    g.fillRoundedRectangle(label, 3);
    g.setColour(juce::Colours::white.withAlpha(0.85F));
    g.drawText(text, label, juce::Justification::centred);
  }
}

}  // namespace Orvik::Tesmo::Plugin
