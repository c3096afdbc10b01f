#include "hosting/rate_converter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <numeric>
#include <stdexcept>
#include <string>

namespace Orvik::Tesmo::Hosting {
namespace {

/// Frames of the lower rate on either side of a place that its filter reaches.
constexpr double reach = 46;
/// Of the Kaiser window, for 121 dB; and the middle of the transition that it makes, as a share of
/// the lower rate's band, so that the transition ends where the band does.
constexpr double beta = 12.37, cutoff = 0.9144;
/// Rates of audio need fewer filters than this. For any other, filters are interpolated between
/// these many: an error of 118 dB below the signal.
constexpr std::uint64_t mostPhases = 1024;
/// Input frames that are kept beyond what the filter needs, so that they seldom have to be moved.
constexpr std::size_t roomFrames = 1024;
constexpr std::size_t lanes = 8;

/// The modified Bessel function of the first kind and order 0.
double Bessel(double x) {
  double sum = 1;
  double term = 1;
  for (int k = 1; term > 1e-17 * sum; ++k) {
    term *= (x / 2 / k) * (x / 2 / k);
    sum += term;
  }
  return sum;
}

/// The filter at `t` frames of the lower rate from its middle.
double Kernel(double t) {
  const double edge = t / reach;
  if (std::fabs(edge) >= 1) return 0;
  const double x = std::numbers::pi * cutoff * t;
  return (x == 0 ? 1 : std::sin(x) / x) * Bessel(beta * std::sqrt(1 - edge * edge));
}

/// The order of the sums is fixed, and lets them run in lanes.
float Product(const float* a, const float* b, std::size_t count) {
  std::array<float, lanes> sums{};
  for (std::size_t i = 0; i < count; i += lanes)
    for (std::size_t lane = 0; lane < lanes; ++lane)
      sums[lane] += a[i + lane] * b[i + lane];
  return ((sums[0] + sums[4]) + (sums[1] + sums[5])) + ((sums[2] + sums[6]) + (sums[3] + sums[7]));
}

}  // namespace

RateConverter::RateConverter(double inputRateHz, double outputRateHz, std::size_t channelCount) {
  const double ratio = outputRateHz / inputRateHz;
  if (!(ratio >= 1.0 / 256 && ratio <= 256))
    throw std::runtime_error("cannot convert from " + std::to_string(inputRateHz) + " Hz to " +
                             std::to_string(outputRateHz) + " Hz");
  constexpr double fineness = 1 << 20;  // what is no multiple of it drifts by a frame in weeks
  inputRate = static_cast<std::uint64_t>(std::llround(inputRateHz * fineness));
  outputRate = static_cast<std::uint64_t>(std::llround(outputRateHz * fineness));
  const std::uint64_t common = std::gcd(inputRate, outputRate);
  inputRate /= common;
  outputRate /= common;

  const double scale = std::min(ratio, 1.0);  // frames of the lower rate in an input frame
  halfTaps = static_cast<std::size_t>(std::ceil(reach / scale));
  taps = (2 * halfTaps + lanes - 1) / lanes * lanes;
  MakePhases(scale);
  recent.assign(channelCount, std::vector<float>(taps + roomFrames + lanes));
  Reset();
}

/// Phase p is the filter for a place p / phaseCount behind the frame before its middle. Each is of
/// gain 1 at 0 Hz. There is one more than phaseCount, to interpolate to.
void RateConverter::MakePhases(double scale) {
  phaseCount = std::min(outputRate, mostPhases);
  phases.resize((phaseCount + 1) * taps);
  between.resize(taps);
  std::vector<double> filter(2 * halfTaps);
  for (std::size_t p = 0; p <= phaseCount; ++p) {
    const double offset = static_cast<double>(p) / static_cast<double>(phaseCount);
    double sum = 0;
    for (std::size_t i = 0; i < filter.size(); ++i) {
      const double frame = static_cast<double>(i) - static_cast<double>(halfTaps - 1);
      filter[i] = Kernel((frame - offset) * scale);
      sum += filter[i];
    }
    std::ranges::transform(filter, phases.begin() + static_cast<std::ptrdiff_t>(p * taps),
                           [sum](double value) { return static_cast<float>(value / sum); });
  }
}

void RateConverter::Reset() {
  for (auto& channel : recent)
    std::ranges::fill(channel, 0.0F);
  filled = halfTaps - 1;  // silence before the first frame
  place = 0;
  part = 0;
}

std::size_t RateConverter::MostFrames(std::size_t inputFrames) const {
  return static_cast<std::size_t>(
             std::ceil(static_cast<double>(inputFrames) * static_cast<double>(outputRate) /
                       static_cast<double>(inputRate))) +
         2;
}

/// The filter for the next output frame.
const float* RateConverter::Coefficients() {
  if (phaseCount == outputRate) return &phases[part * taps];
  const double phase =
      static_cast<double>(part) / static_cast<double>(outputRate) * static_cast<double>(phaseCount);
  const auto index = static_cast<std::size_t>(phase);
  const auto share = static_cast<float>(phase - static_cast<double>(index));
  const float* const before = &phases[index * taps];
  for (std::size_t i = 0; i < taps; ++i)
    between[i] = before[i] + share * (before[i + taps] - before[i]);
  return between.data();
}

std::size_t RateConverter::Process(const float* const* input, std::size_t frames,
                                   float* const* output) {
  std::size_t made = 0;
  for (std::size_t used = 0; used < frames;) {
    if (filled == taps + roomFrames) {  // all before `place` is needed no more
      for (auto& channel : recent)
        std::copy_n(channel.begin() + static_cast<std::ptrdiff_t>(place), filled - place,
                    channel.begin());
      filled -= place;
      place = 0;
    }
    const std::size_t n = std::min(frames - used, taps + roomFrames - filled);
    for (std::size_t c = 0; c < recent.size(); ++c)
      std::copy_n(input[c] + used, n, recent[c].begin() + static_cast<std::ptrdiff_t>(filled));
    used += n;
    filled += n;
    for (; place + 2 * halfTaps <= filled; ++made) {
      const float* const filter = Coefficients();
      for (std::size_t c = 0; c < recent.size(); ++c)
        output[c][made] = Product(&recent[c][place], filter, taps);
      part += inputRate;
      place += part / outputRate;
      part %= outputRate;
    }
  }
  return made;
}

}  // namespace Orvik::Tesmo::Hosting
