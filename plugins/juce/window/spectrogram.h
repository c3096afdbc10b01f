#pragma once

#include <juce_gui_basics/juce_gui_basics.h>

#include "primitives/spectral_transform.h"

#include <memory>
#include <vector>

namespace Orvik::Tesmo::Plugin {

/// The last ten seconds of one channel, the newest at the right: levels from -100 to -20 dB over
/// frequencies on a mel scale. Of the message thread.
class Spectrogram final : public juce::Component {
public:
  explicit Spectrogram(const juce::String& title);

  /// Forgets all; what comes next has this rate in Hz.
  void Begin(double newRateHz);
  void Push(const float* samples, std::size_t count);

  void paint(juce::Graphics& g) override;

private:
  void AddColumn();
  float RowOf(double hz) const;  // 0 at the bottom to 1 at the top

  double rateHz = 0;
  std::unique_ptr<SpectralTransform> transform;
  std::vector<float> window, recent, spectrum;  // `recent`: the newest last
  std::size_t hop = 0, fresh = 0;               // samples to a column; of them there are
  std::vector<std::size_t> firstBin;            // of each row, and one beyond the last
  juce::Image image;                            // a ring of columns
  int column = 0;                               // that comes next, the oldest
};

}  // namespace Orvik::Tesmo::Plugin
