#include "audio/quantize.h"

#include <algorithm>
#include <cmath>

namespace Orvik::Tesmo::Tool {

std::uint64_t Quantize(std::span<const float> in, int bits, std::span<std::int32_t> out) {
  const double scale = std::ldexp(1.0, bits - 1);
  const double unit = std::ldexp(1.0, 32 - bits);
  std::uint64_t cut = 0;
  for (std::size_t i = 0; i < in.size(); ++i) {
    const double level = std::nearbyint(in[i] * scale);
    const double held = std::clamp(level, -scale, scale - 1);
    // Full scale itself is one step too high for two's complement; that is no clipping to report.
    if (held != level && std::abs(in[i]) > 1) ++cut;
    out[i] = static_cast<std::int32_t>(held * unit);
  }
  return cut;
}

std::uint64_t SilenceNonFinite(std::span<float> samples) {
  std::uint64_t count = 0;
  for (float& sample : samples) {
    if (std::isfinite(sample)) continue;
    sample = 0;
    ++count;
  }
  return count;
}

}  // namespace Orvik::Tesmo::Tool
