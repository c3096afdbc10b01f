#pragma once

#include <cstdint>
#include <span>

namespace Orvik::Tesmo::Tool {

/// Rounds samples (full scale 1) to `bits` bits, left-justified in 32, as libsndfile takes them.
/// What lies outside is cut to full scale; the result is how many samples were. `out` has the size
/// of `in`. A sample that came from `bits` bits goes back to the very same bits.
std::uint64_t Quantize(std::span<const float> in, int bits, std::span<std::int32_t> out);

/// Sets samples that are no finite numbers to 0; gives their count.
std::uint64_t SilenceNonFinite(std::span<float> samples);

}  // namespace Orvik::Tesmo::Tool
