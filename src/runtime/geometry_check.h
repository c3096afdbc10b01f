#pragma once

// Which models and sizes the audio path serves. Its strides come from the geometry alone, so
// whatever would make them differ from a tensor is refused here, once, before any tensor exists.
// Each check throws ContractException with a text that the author of a model can act on.

#include "platform/platform.h"
#include "runtime/model_layout.h"
#include "runtime/processing_geometry.h"

#include <cstddef>
#include <cstdint>

namespace Orvik::Tesmo::Dnn {

/// Feature 0 of a side is a tensor of 32-bit floats.
void CheckAudioFeature(Platform::Side side, const Platform::FeatureDescriptor& feature);

/// Its number of dimensions has a meaning: 1 to 4 on the input, 1 to 5 on the output.
void CheckAudioRank(Platform::Side side, std::size_t rank);

/// The input fixes its Features; Components are 2 on both sides or absent on both; the window is an
/// even number of samples, from 2.
void CheckDeclaredShapes(const ModelLayout& layout);

/// Sizes that a model declares in its metadata are not negative.
void CheckLookahead(std::int32_t lookaheadBlocks);
void CheckBaselineSequenceSize(std::int32_t sequenceSize);

/// There is a channel and a window, and no buffer of this geometry has more than MaxFloats.
void CheckGeometry(const ProcessingGeometry& geometry);

/// Tensors of these concrete shapes hold what the audio path reads and writes: a dimension that a
/// tensor lacks has the size 1 in the geometry, and the output's windows are not shorter than the
/// input's. (Longer ones are accepted, but the audio path steps from window to window by the length
/// of the input's.)
void CheckTensorsFit(const ModelLayout& layout, const Platform::Shape& inputShape,
                     const Platform::Shape& outputShape, std::uint32_t classCount,
                     const ProcessingGeometry& geometry);

}  // namespace Orvik::Tesmo::Dnn
