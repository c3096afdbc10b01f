#include "runtime/geometry_check.h"

#include "failure/exceptions.h"
#include "runtime/element_count.h"

#include <type_traits>

namespace Orvik::Tesmo::Dnn {

namespace {

using Platform::Side;

void Require(bool condition, const char* refusal) {
  if (!condition) throw ContractException(refusal);
}

void Require(bool condition, Side side, const char* inputRefusal, const char* outputRefusal) {
  Require(condition, side == Side::Input ? inputRefusal : outputRefusal);
}

}  // namespace

void CheckAudioFeature(Side side, const Platform::FeatureDescriptor& feature) {
  auto kind = Platform::FeatureKind::Other;
  CheckResult(feature.GetKind(kind));
  Require(kind == Platform::FeatureKind::Tensor, side, "The first input is not a tensor",
          "The first output is not a tensor");
  auto tensorKind = Platform::TensorKind::Undefined;
  CheckResult(feature.GetTensorKind(tensorKind));
  Require(tensorKind == Platform::TensorKind::Float, side,
          "The first input is not a tensor of 32-bit floats",
          "The first output is not a tensor of 32-bit floats");
}

void CheckAudioRank(Side side, std::size_t rank) {
  const auto most = side == Side::Input ? MaxInputDimensions : MaxOutputDimensions;
  Require(rank >= 1 && rank <= most, side, "The first input must have 1 to 4 dimensions",
          "The first output must have 1 to 5 dimensions");
}

void CheckDeclaredShapes(const ModelLayout& layout) {
  const auto& input = layout.GetDeclaredInputShape();
  const bool spectralInput = input.size() == MaxInputDimensions;
  const bool spectralOutput = layout.GetDeclaredOutputShape().size() == MaxOutputDimensions;
  const auto features = static_cast<std::size_t>(layout.GetInputDimension(InputRole::Features));

  Require(!IsFree(input[features]), "The window length (Features) of the input must be fixed");
  ElementCount({static_cast<std::uint64_t>(input[features])});
  Require(spectralInput == spectralOutput,
          "Spectra (Components) must be on the input (4 dimensions) and on the output (5 "
          "dimensions), or on neither");
  Require(!spectralInput || layout.GetInputComponents() == 2,
          "The last dimension of a spectral input must be 2: real and imaginary part");
  Require(!spectralOutput || layout.GetOutputComponents() == 2,
          "The last dimension of a spectral output must be 2: real and imaginary part");
  ElementCount({layout.GetWindowLength()});
  Require(layout.GetWindowLength() % 2 == 0, "The window length (Features) must be even");
  Require(layout.GetHopLength() >= 1, "A spectrum must have 2 bins (Features) or more");
}

void CheckLookahead(std::int32_t lookaheadBlocks) {
  Require(lookaheadBlocks >= 0, "LookaheadNumBlocks of the model is negative");
}

void CheckBaselineSequenceSize(std::int32_t sequenceSize) {
  Require(sequenceSize >= 0, "BaselineSequenceSize of the model is negative");
}

void CheckGeometry(const ProcessingGeometry& geometry) {
  Require(geometry.channelCount > 0, "The number of channels must be at least 1");
  Require(geometry.sequenceSize > 0, "The sequence size must be at least 1");
  ElementCount({geometry.sequenceSize});  // so that the sum cannot wrap
  ElementCount({geometry.channelCount, geometry.sequenceSize + geometry.lookaheadBlocks,
                geometry.windowLength});
}

void CheckTensorsFit(const ModelLayout& layout, const Platform::Shape& inputShape,
                     const Platform::Shape& outputShape, std::uint32_t classCount,
                     const ProcessingGeometry& geometry) {
  const auto lacks = [&](auto role) {
    if constexpr (std::is_same_v<decltype(role), InputRole>)
      return layout.GetInputDimension(role) < 0;
    else
      return layout.GetOutputDimension(role) < 0;
  };
  Require(!lacks(InputRole::Channels) || geometry.channelCount == 1,
          "The input has no channel dimension: only 1 channel is possible");
  Require(!lacks(OutputRole::Channels) || geometry.channelCount == 1,
          "The output has no channel dimension: only 1 channel is possible");
  Require(
      !lacks(InputRole::Sequence) || geometry.sequenceSize + geometry.lookaheadBlocks == 1,
      "The input has no sequence dimension: only sequence size 1 without lookahead is possible");
  Require(!lacks(OutputRole::Sequence) || geometry.sequenceSize == 1,
          "The output has no sequence dimension: only sequence size 1 is possible");
  Require(!lacks(OutputRole::Classes) || classCount == 1,
          "The output has no class dimension: only 1 audio class is possible");

  const auto inputFeatures = layout.GetInputDimension(InputRole::Features);
  const auto outputFeatures = layout.GetOutputDimension(OutputRole::Features);
  Require(inputShape[static_cast<std::size_t>(inputFeatures)] ==
              outputShape[static_cast<std::size_t>(outputFeatures)],
          "The output's windows (Features) must be as long as the input's");
}

}  // namespace Orvik::Tesmo::Dnn
