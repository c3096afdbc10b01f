#include "hosting/high_band.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace Orvik::Tesmo::Hosting {
namespace {

/// Mean square below which there is nothing to follow: 110 dB below full scale.
constexpr double silence = 1e-11;

}  // namespace

HighBandGain::HighBandGain(double band, std::size_t channelCount, std::uint64_t hopLength)
    : hopLength(hopLength), channels(channelCount) {
  const double k = std::tan(std::numbers::pi * band / 2);
  for (std::size_t s = 0; s < sections.size(); ++s) {
    // 1 / Q of the two pairs of poles
    const double damping = 2 * std::cos(std::numbers::pi * (s == 0 ? 1 : 3) / 8);
    const double norm = 1 / (1 + damping * k + k * k);
    sections[s] = {norm, -2 * norm, norm, 2 * (k * k - 1) * norm, (1 - damping * k + k * k) * norm};
  }
}

void HighBandGain::Restart() {
  std::fill(channels.begin(), channels.end(), Channel{});
}

/// The mean square of a hop behind the filter.
double HighBandGain::Power(HighPass& filter, const float* audio) const {
  double sum = 0;
  for (std::uint64_t i = 0; i < hopLength; ++i) {
    double x = audio[i];
    for (std::size_t s = 0; s < sections.size(); ++s) {
      auto& [z1, z2] = filter.state[s];
      const Section& c = sections[s];
      const double y = c.b0 * x + z1;
      z1 = c.b1 * x - c.a1 * y + z2;
      z2 = c.b2 * x - c.a2 * y;
      x = y;
    }
    sum += x * x;
  }
  for (auto& section : filter.state)
    for (double& z : section)
      if (std::fabs(z) < 1e-30) z = 0;  // denormal numbers are slow
  return sum / static_cast<double>(hopLength);
}

void HighBandGain::Follow(const Frames& mix, const Frames& dry, HighBand choice,
                          const MixGains& gains, Frames& course) {
  const std::uint64_t hops = mix.Length() / hopLength;
  for (std::size_t c = 0; c < channels.size(); ++c) {
    Channel& channel = channels[c];
    for (std::uint64_t hop = 0; hop < hops; ++hop) {
      const std::uint64_t begin = hop * hopLength;
      const double mixPower = Power(channel.mix, mix[c] + begin);
      const double dryPower = Power(channel.dry, dry[c] + begin);
      const double rest = gains.rest;
      const auto followed =
          static_cast<float>(std::sqrt((mixPower + silence * rest * rest) / (dryPower + silence)));
      const float wanted =
          choice == HighBand::Rest ? gains.rest : std::clamp(followed, gains.least, gains.greatest);
      const float before = channel.hasGain ? channel.gain : wanted;
      for (std::uint64_t i = 0; i < hopLength; ++i)
        course[c][begin + i] = before + (wanted - before) * (static_cast<float>(i + 1) /
                                                             static_cast<float>(hopLength));
      channel.gain = wanted;
      channel.hasGain = true;
    }
  }
}

}  // namespace Orvik::Tesmo::Hosting
