#include "runtime/model_binding.h"

#include "failure/exceptions.h"
#include "runtime/geometry_check.h"
#include "runtime/tensor_factory.h"

namespace Orvik::Tesmo::Dnn {

namespace {

std::u16string FeatureName(const Platform::FeatureList& features, std::uint32_t index) {
  std::shared_ptr<Platform::FeatureDescriptor> feature;
  CheckResult(features.GetAt(index, feature));
  std::u16string name;
  CheckResult(feature->GetName(name));
  return name;
}

std::vector<RecurrentBinding> PairStates(Platform::Runtime& runtime, const Platform::Model& model,
                                         const ModelLayout& layout, std::uint64_t channelCount) {
  std::shared_ptr<Platform::FeatureList> inputs, outputs;
  CheckResult(model.GetInputFeatures(inputs));
  CheckResult(model.GetOutputFeatures(outputs));
  std::uint32_t inputCount = 0, outputCount = 0;
  CheckResult(inputs->GetSize(inputCount));
  CheckResult(outputs->GetSize(outputCount));
  if (inputCount != outputCount) throw WinML::CException(RefusalReason::StatesDoNotPair);

  std::vector<RecurrentBinding> recurrent;
  for (std::uint32_t i = 1; i < inputCount; ++i) {
    RecurrentBinding state;
    state.outputName = FeatureName(*outputs, i);
    state.inputName = FeatureName(*inputs, i);
    // a free dimension of a state means one entry for each channel
    state.tensor =
        CreateTensor(runtime, layout.GetStateTensorKind(i - 1),
                     layout.GetStateShape(i - 1, static_cast<std::int64_t>(channelCount)));
    recurrent.push_back(std::move(state));
  }
  return recurrent;
}

}  // namespace

PlanarBuffer::PlanarBuffer(std::uint64_t channelCount, std::uint64_t channelLength)
    : channelCount(channelCount), channelLength(channelLength) {
  if (channelCount == 0 || channelLength == 0) return;
  data = MakeFloatArray({channelCount, channelLength});
  channels = std::make_unique<float*[]>(channelCount);
  for (std::uint64_t channel = 0; channel < channelCount; ++channel)
    channels[channel] = data.get() + channel * channelLength;
}

AudioShapes ShapesAt(const ProcessingGeometry& geometry, const ModelLayout& layout,
                     std::uint32_t classCount) {
  CheckGeometry(geometry);
  const auto S = static_cast<std::uint32_t>(geometry.sequenceSize);
  const auto C = static_cast<std::uint32_t>(geometry.channelCount);
  AudioShapes shapes{layout.GetInputShape(S + geometry.lookaheadBlocks, C),
                     layout.GetOutputShape(S, C, classCount)};
  CheckTensorsFit(layout, shapes.input, shapes.output, classCount, geometry);
  for (const Platform::Shape* shape : {&shapes.input, &shapes.output})
    if (!ProductUpTo(MaxFloats, *shape)) throw ContractException(RefusalReason::SizesOutOfRange);
  return shapes;
}

ModelBinding::ModelBinding(Platform::Runtime& runtime, const Platform::Model& model,
                           const ModelLayout& layout, std::uint32_t classCount,
                           const ProcessingGeometry& geometry)
    : shapes(ShapesAt(geometry, layout, classCount)) {
  const std::uint64_t W = geometry.windowLength, S = geometry.sequenceSize;
  const std::uint64_t C = geometry.channelCount, L = geometry.lookaheadBlocks;

  inputTensor = CreateFloatTensor(runtime, shapes.input);
  outputTensor = CreateFloatTensor(runtime, shapes.output);
  workBuffer = PlanarBuffer(C, W * S);
  historyBuffer = PlanarBuffer(C, (S + L) * W);
  for (std::uint64_t channel = 0; channel < C; ++channel)
    newWindows.push_back(historyBuffer.channels[channel] + L * W);
  classBuffer = PlanarBuffer(C, W * S);
  recurrent = PairStates(runtime, model, layout, C);
}

void BindTensors(Platform::Binding& binding, const ModelBinding& tensors) {
  using Platform::Side;
  for (const RecurrentBinding& state : tensors.recurrent) {
    CheckResult(binding.Bind(Side::Input, state.inputName, state.tensor));
    CheckResult(binding.Bind(Side::Output, state.outputName, state.tensor));
  }
  CheckResult(binding.Bind(Side::Input, u"input", tensors.inputTensor));
  CheckResult(binding.Bind(Side::Output, u"output", tensors.outputTensor));
  CheckResult(binding.Prepare());
}

}  // namespace Orvik::Tesmo::Dnn
