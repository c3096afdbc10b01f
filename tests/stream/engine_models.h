#pragma once

#include "stream/reference_stream.h"
#include "support/audio_models.h"

#include <cstdint>
#include <string>

namespace TestSupport {

/// A model that passes its input through in its one class "Extracted", for streams of these sizes
/// (any sequence size and channel count).
inline AudioModelOptions PassThroughModel(const StreamSizes& sizes) {
  return {.features = static_cast<std::int64_t>(sizes.isSpectral ? sizes.hop + 1 : 2 * sizes.hop),
          .lookahead = static_cast<std::int64_t>(sizes.lookahead),
          .inputRank = sizes.isSpectral ? 4U : 3U,
          .outputRank = sizes.isSpectral ? 5U : 4U,
          .metadata = {{"LookaheadNumBlocks", std::to_string(sizes.lookahead)}}};
}

}  // namespace TestSupport
