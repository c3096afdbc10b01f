#pragma once

#include "hosting/frames.h"

#include <array>
#include <cstdint>
#include <vector>

namespace Orvik::Tesmo::Hosting {

/// The gain of what lies above the model's band, where it knows no classes.
enum class HighBand {
  Follow,  ///< what the mix made of the top octave of the model's band
  Rest,    ///< the gain of Rest
};

/// Linear gains, the master gain counted in.
struct MixGains {
  float rest = 1;
  float least = 1, greatest = 1;  // of Rest and all classes
};

/// Works that gain out, hop by hop and for each channel alone.
class HighBandGain {
public:
  /// `band`: the highest frequency that the audio can have, as a part of the model's sample rate,
  /// above 0 and at most 0.5. `hopLength`: model frames of one step.
  HighBandGain(double band, std::size_t channelCount, std::uint64_t hopLength);

  /// As if nothing had been heard.
  void Restart();

  /// Takes a whole number of hops of mix and dry path, and writes the gain of each frame: linear
  /// within a hop, from the last hop's gain to this one's.
  /// In Follow it is the square root of (power of the mix / power of the dry path) in the top
  /// octave, but never outside `gains`; with all gains equal it is exactly that gain. In silence it
  /// is the gain of Rest.
  void Follow(const Frames& mix, const Frames& dry, HighBand choice, const MixGains& gains,
              Frames& course);

private:
  /// A Butterworth high-pass of order 4, as two sections.
  struct HighPass {
    std::array<std::array<double, 2>, 2> state{};
  };
  double Power(HighPass& filter, const float* audio) const;

  struct Section {
    double b0, b1, b2, a1, a2;
  };
  std::array<Section, 2> sections;
  std::uint64_t hopLength;
  struct Channel {
    HighPass mix, dry;
    float gain = 0;
    bool hasGain = false;
  };
  std::vector<Channel> channels;
};

}  // namespace Orvik::Tesmo::Hosting
