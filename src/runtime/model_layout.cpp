#include "runtime/model_layout.h"

#include "failure/exceptions.h"
#include "runtime/geometry_check.h"

#include <algorithm>
#include <array>

namespace Orvik::Tesmo::Dnn {

namespace {

using Platform::Shape;

/// Row n - 1: the role of each position in a tensor of n dimensions; -1 where it has no more.
constexpr std::array<std::array<int, MaxInputDimensions>, MaxInputDimensions> InputRoles{{
    {2, -1, -1, -1},
    {1, 2, -1, -1},
    {0, 1, 2, -1},
    {0, 1, 2, 3},
}};
constexpr std::array<std::array<int, MaxOutputDimensions>, MaxOutputDimensions> OutputRoles{{
    {3, -1, -1, -1, -1},
    {2, 3, -1, -1, -1},
    {1, 2, 3, -1, -1},
    {0, 1, 2, 3, -1},
    {0, 1, 2, 3, 4},
}};

/// The same rows from role to position.
template <std::size_t N>
constexpr auto Inverse(const std::array<std::array<int, N>, N>& rows) {
  auto inverse = rows;
  for (std::size_t row = 0; row < N; ++row) {
    inverse[row].fill(-1);
    for (std::size_t position = 0; position < N; ++position) {
      if (rows[row][position] >= 0)
        inverse[row][static_cast<std::size_t>(rows[row][position])] = static_cast<int>(position);
    }
  }
  return inverse;
}
constexpr auto InputPositions = Inverse(InputRoles);
constexpr auto OutputPositions = Inverse(OutputRoles);

Shape ReadAudioShape(const Platform::FeatureList& features, Platform::Side side) {
  std::shared_ptr<Platform::FeatureDescriptor> feature;
  CheckResult(features.GetAt(0, feature));
  CheckAudioFeature(side, *feature);
  Shape shape;
  CheckResult(feature->GetShape(shape));
  CheckAudioRank(side, shape.size());
  return shape;
}

std::vector<StateFeature> ReadStates(const Platform::FeatureList& inputs) {
  std::vector<StateFeature> states;
  std::uint32_t size = 0;
  CheckResult(inputs.GetSize(size));
  for (std::uint32_t index = 1; index < size; ++index) {
    std::shared_ptr<Platform::FeatureDescriptor> feature;
    CheckResult(inputs.GetAt(index, feature));
    auto kind = Platform::FeatureKind::Other;
    CheckResult(feature->GetKind(kind));
    if (kind != Platform::FeatureKind::Tensor)
      throw ContractException(RefusalReason::StateIsNoTensor);
    StateFeature state{};
    CheckResult(feature->GetTensorKind(state.kind));
    CheckResult(feature->GetShape(state.shape));
    states.push_back(std::move(state));
  }
  return states;
}

/// Settles dimension `position` of `shape` (none where it is -1).
void Settle(Shape& shape, int position, std::int64_t size, RefusalReason refusal) {
  if (position < 0) return;
  auto& dimension = shape[static_cast<std::size_t>(position)];
  if (IsFree(dimension))
    dimension = size;
  else if (dimension != size)
    throw ContractException(refusal);
}

}  // namespace

ModelLayout::ModelLayout(const Platform::Model& model) {
  std::shared_ptr<Platform::FeatureList> inputs;
  CheckResult(model.GetInputFeatures(inputs));
  inputShape = ReadAudioShape(*inputs, Platform::Side::Input);
  std::shared_ptr<Platform::FeatureList> outputs;
  CheckResult(model.GetOutputFeatures(outputs));
  outputShape = ReadAudioShape(*outputs, Platform::Side::Output);
  states = ReadStates(*inputs);

  const auto features = static_cast<std::size_t>(GetInputDimension(InputRole::Features));
  featureSize = static_cast<std::uint32_t>(inputShape[features]);
  windowLength = inputShape.size() < MaxInputDimensions ? featureSize : 2 * featureSize - 2;
  CheckDeclaredShapes(*this);
}

std::uint32_t ModelLayout::GetFeatureSize() const {
  return featureSize;
}
std::uint32_t ModelLayout::GetWindowLength() const {
  return windowLength;
}
std::uint32_t ModelLayout::GetHopLength() const {
  return windowLength / 2;
}

Shape ModelLayout::GetInputShape(std::uint32_t sequenceSize, std::uint32_t channelCount) const {
  Shape shape = inputShape;
  Settle(shape, GetInputDimension(InputRole::Sequence), sequenceSize,
         RefusalReason::InputSequenceIsFixed);
  Settle(shape, GetInputDimension(InputRole::Channels), channelCount,
         RefusalReason::InputChannelsAreFixed);
  return shape;
}

Shape ModelLayout::GetOutputShape(std::uint32_t sequenceSize, std::uint32_t channelCount,
                                  std::uint32_t classCount) const {
  Shape shape = outputShape;
  Settle(shape, GetOutputDimension(OutputRole::Sequence), sequenceSize,
         RefusalReason::OutputSequenceIsFixed);
  Settle(shape, GetOutputDimension(OutputRole::Channels), channelCount,
         RefusalReason::OutputChannelsAreFixed);
  Settle(shape, GetOutputDimension(OutputRole::Classes), classCount, RefusalReason::ClassCount);
  auto& features = shape[static_cast<std::size_t>(GetOutputDimension(OutputRole::Features))];
  if (IsFree(features))
    features = inputShape[static_cast<std::size_t>(GetInputDimension(InputRole::Features))];
  return shape;
}

Shape ModelLayout::GetStateShape(std::size_t stateIndex, std::int64_t fillValue) const {
  Shape shape = states[stateIndex].shape;
  std::replace_if(shape.begin(), shape.end(), IsFree, fillValue);
  return shape;
}

std::size_t ModelLayout::GetStateCount() const {
  return states.size();
}

std::int64_t ModelLayout::GetInputComponents() const {
  return inputShape.size() < MaxInputDimensions ? 1 : inputShape.back();
}

std::int64_t ModelLayout::GetOutputComponents() const {
  return outputShape.size() < MaxOutputDimensions ? 1 : outputShape.back();
}

int ModelLayout::GetInputDimension(InputRole role) const {
  return InputPositions[inputShape.size() - 1][static_cast<std::size_t>(role)];
}

int ModelLayout::GetOutputDimension(OutputRole role) const {
  return OutputPositions[outputShape.size() - 1][static_cast<std::size_t>(role)];
}

std::uint32_t ModelLayout::GetStateTensorKind(std::size_t stateIndex) const {
  return states[stateIndex].kind;
}

}  // namespace Orvik::Tesmo::Dnn
