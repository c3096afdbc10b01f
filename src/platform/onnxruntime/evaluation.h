#pragma once

#include "platform/onnxruntime/parsed_model.h"
#include "platform/onnxruntime/tensor.h"

#include <array>
#include <memory>
#include <optional>
#include <vector>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

/// The tensor of each feature of one side, by the number of the feature; null where none is bound.
using BoundTensors = std::vector<std::shared_ptr<Tensor>>;

/// A model together with a fixed set of tensors, ready to be run again and again.
///
/// The engine runs its nodes in an order of its own. With one memory for the old and the new values
/// of a state it may write the new ones before all readers of the old ones have run, and then the
/// results are wrong without a word. So a state has two buffers, and there are two bindings of the
/// engine that take turns: one reads the first buffers and writes the second, the other the
/// reverse. Nothing is copied.
///
/// Copies are made for one kind of output only: where the model names an input as its output, the
/// engine writes nothing. If the two have the same tensor, that is all right as it is and one
/// buffer is enough; if not, the output's tensor receives a copy of what the input held.
class Evaluation {
public:
  /// Runs the model once on each turn, so that the engine has allocated and tried all it needs, and
  /// leaves all tensors zero.
  /// `session` is one of `model`; both must outlive the evaluation.
  Evaluation(const ParsedModel& model, OrtSession* session, BoundTensors inputs,
             BoundTensors outputs);

  /// One evaluation. On failure no turn is taken, so states keep their values. Allocates nothing of
  /// its own (but for copies of strings).
  ResultCode Run() noexcept;

private:
  struct Copy {
    Tensor* from;
    Tensor* to;
  };

  std::optional<std::size_t> PassedThrough(std::size_t output) const;
  void ArrangeOutput(std::size_t output);
  void BindOn(int turn);
  void Rehearse();
  void Clear();
  void RunOn(int someTurn);

  const ParsedModel& model;
  OrtSession* session;
  BoundTensors inputs, outputs;
  std::vector<Tensor*> states;  ///< those that alternate
  std::vector<Copy> copies;
  std::array<Handle<OrtIoBinding>, 2> bindings;
  int turn = 0;
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
