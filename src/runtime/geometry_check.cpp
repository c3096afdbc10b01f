#include "runtime/geometry_check.h"

#include "failure/exceptions.h"
#include "runtime/float_array.h"

#include <type_traits>

namespace Orvik::Tesmo::Dnn {

namespace {

using Platform::Side;
using enum RefusalReason;

void Require(bool condition, RefusalReason refusal) {
  if (!condition) throw ContractException(refusal);
}

void Require(bool condition, Side side, RefusalReason onInput, RefusalReason onOutput) {
  Require(condition, side == Side::Input ? onInput : onOutput);
}

}  // namespace

void CheckAudioFeature(Side side, const Platform::FeatureDescriptor& feature) {
  auto kind = Platform::FeatureKind::Other;
  CheckResult(feature.GetKind(kind));
  Require(kind == Platform::FeatureKind::Tensor, side, InputIsNoTensor, OutputIsNoTensor);
  auto tensorKind = Platform::TensorKind::Undefined;
  CheckResult(feature.GetTensorKind(tensorKind));
  Require(tensorKind == Platform::TensorKind::Float, side, InputIsNotFloat, OutputIsNotFloat);
}

void CheckAudioRank(Side side, std::size_t rank) {
  const auto most = side == Side::Input ? MaxInputDimensions : MaxOutputDimensions;
  Require(rank >= 1 && rank <= most, side, InputRank, OutputRank);
}

void CheckDeclaredShapes(const ModelLayout& layout) {
  const auto& input = layout.GetDeclaredInputShape();
  const bool spectralInput = input.size() == MaxInputDimensions;
  const bool spectralOutput = layout.GetDeclaredOutputShape().size() == MaxOutputDimensions;
  const auto features = static_cast<std::size_t>(layout.GetInputDimension(InputRole::Features));

  Require(!IsFree(input[features]), WindowLengthIsFree);
  FloatCount({static_cast<std::uint64_t>(input[features])});
  Require(spectralInput == spectralOutput, ComponentsOnOneSide);
  Require(!spectralInput || layout.GetInputComponents() == 2, InputComponents);
  Require(!spectralOutput || layout.GetOutputComponents() == 2, OutputComponents);
  Require(layout.GetWindowLength() % 2 == 0, WindowLengthIsOdd);
  Require(layout.GetHopLength() >= 1, SpectrumIsTooShort);
  FloatCount({layout.GetWindowLength()});
}

void CheckLookahead(std::int32_t lookaheadBlocks) {
  Require(lookaheadBlocks >= 0, LookaheadIsNegative);
}

void CheckBaselineSequenceSize(std::int32_t sequenceSize) {
  Require(sequenceSize >= 0, BaselineIsNegative);
}

void CheckGeometry(const ProcessingGeometry& geometry) {
  Require(geometry.channelCount > 0, NoChannel);
  Require(geometry.sequenceSize > 0, NoWindow);
  FloatCount({geometry.sequenceSize});  // so that the sum cannot wrap
  FloatCount({geometry.channelCount, geometry.sequenceSize + geometry.lookaheadBlocks,
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
  Require(!lacks(InputRole::Channels) || geometry.channelCount == 1, InputLacksChannels);
  Require(!lacks(OutputRole::Channels) || geometry.channelCount == 1, OutputLacksChannels);
  Require(!lacks(InputRole::Sequence) || geometry.sequenceSize + geometry.lookaheadBlocks == 1,
          InputLacksSequence);
  Require(!lacks(OutputRole::Sequence) || geometry.sequenceSize == 1, OutputLacksSequence);
  Require(!lacks(OutputRole::Classes) || classCount == 1, OutputLacksClasses);

  const auto sizeOf = [](const Platform::Shape& shape, int dimension) {
    return shape[static_cast<std::size_t>(dimension)];
  };
  Require(sizeOf(outputShape, layout.GetOutputDimension(OutputRole::Features)) >=
              sizeOf(inputShape, layout.GetInputDimension(InputRole::Features)),
          OutputWindowsAreShort);
}

}  // namespace Orvik::Tesmo::Dnn
