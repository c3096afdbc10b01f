#include "platform/onnxruntime/evaluation.h"

#include <algorithm>
#include <utility>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

Evaluation::Evaluation(const ParsedModel& model, OrtSession* session, BoundTensors boundInputs,
                       BoundTensors boundOutputs)
    : model(model), session(session), inputs(std::move(boundInputs)),
      outputs(std::move(boundOutputs)) {
  for (std::size_t i = 0; i < outputs.size(); ++i)
    if (outputs[i]) ArrangeOutput(i);
  for (int someTurn : {0, 1})
    BindOn(someTurn);
  Rehearse();
}

/// The input that the model names as this output.
std::optional<std::size_t> Evaluation::PassedThrough(std::size_t output) const {
  const std::vector<Feature>& features = model.Features(Side::Input);
  const std::string& name = model.Features(Side::Output)[output].engineName;
  const auto found = std::find_if(features.begin(), features.end(), [&](const Feature& feature) {
    return feature.engineName == name;
  });
  if (found == features.end()) return std::nullopt;
  return static_cast<std::size_t>(found - features.begin());
}

void Evaluation::ArrangeOutput(std::size_t output) {
  const std::shared_ptr<Tensor>& tensor = outputs[output];
  if (std::count(outputs.begin(), outputs.end(), tensor) != 1)
    Refuse(ResultCodes::InvalidArgument, "one tensor is bound to two outputs");
  const std::optional<std::size_t> source = PassedThrough(output);
  const bool keepsItself = source && inputs[*source] == tensor;
  const bool isState = std::count(inputs.begin(), inputs.end(), tensor) != 0;

  tensor->SetAlternating(isState && !keepsItself);
  if (tensor->Alternates()) states.push_back(tensor.get());
  if (!source || keepsItself) return;
  if (!inputs[*source] || !tensor->HasSameTypeAs(*inputs[*source]))
    Refuse(ResultCodes::InvalidArgument,
           "an output that is an input needs a tensor of that input's type and shape");
  copies.push_back({inputs[*source].get(), tensor.get()});
}

void Evaluation::BindOn(int someTurn) {
  const Engine& engine = *model.GetEngine();
  const OrtApi& api = engine.Api();
  Handle<OrtIoBinding>& binding = bindings[static_cast<std::size_t>(someTurn)];
  engine.Check(api.createBinding(session, Receive(binding, api.releaseBinding)));
  for (std::size_t i = 0; i < inputs.size(); ++i)
    if (inputs[i])
      engine.Check(api.bindInput(binding.get(), model.Features(Side::Input)[i].engineName.c_str(),
                                 inputs[i]->ReadOn(someTurn).Value()));
  for (std::size_t i = 0; i < outputs.size(); ++i)
    if (outputs[i])
      engine.Check(api.bindOutput(binding.get(), model.Features(Side::Output)[i].engineName.c_str(),
                                  outputs[i]->WrittenOn(someTurn).Value()));
}

void Evaluation::Rehearse() {
  for (int someTurn : {0, 1}) {
    Clear();
    RunOn(someTurn);
  }
  Clear();
}

void Evaluation::Clear() {
  for (const BoundTensors* side : {&inputs, &outputs})
    for (const std::shared_ptr<Tensor>& tensor : *side)
      if (tensor) tensor->Clear();
}

void Evaluation::RunOn(int someTurn) {
  const Engine& engine = *model.GetEngine();
  engine.Check(engine.Api().runWithBinding(session, nullptr,
                                           bindings[static_cast<std::size_t>(someTurn)].get()));
  for (const Copy& copy : copies)
    copy.to->WrittenOn(someTurn).CopyFrom(copy.from->ReadOn(someTurn));
}

ResultCode Evaluation::Run() noexcept {
  return Guarded([this] {
    RunOn(turn);
    turn = 1 - turn;
    for (Tensor* state : states)
      state->SetTurn(turn);
  });
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
