#pragma once

#include <cstdint>

namespace Orvik::Tesmo::Dnn {

/// The five sizes of a stream. A window is `windowLength` samples of one channel; windows overlap
/// by one half.
struct ProcessingGeometry {
  std::uint32_t windowLength = 0;     ///< samples, W
  std::uint64_t sequenceSize = 0;     ///< windows per evaluation, S
  std::uint64_t channelCount = 0;     ///< C
  std::uint32_t lookaheadBlocks = 0;  ///< further windows in the model's input sequence, L
  std::uint32_t hopLength = 0;        ///< frames, half of windowLength
};

}  // namespace Orvik::Tesmo::Dnn
