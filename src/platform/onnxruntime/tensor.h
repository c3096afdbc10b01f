#pragma once

#include "platform/onnxruntime/tensor_buffer.h"
#include "platform/platform.h"

#include <memory>
#include <optional>
#include <utility>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

/// A tensor with one buffer, or two that take turns: on turn 0 an evaluation reads the first and
/// writes the second, on turn 1 the reverse.
class Tensor final : public Platform::Tensor {
public:
  Tensor(const std::shared_ptr<const Engine>& engine, std::uint32_t kind, const Shape& shape)
      : engine(engine), kind(kind), shape(shape), first(engine, kind, shape) {}

  /// The buffer that the next evaluation reads: of a recurrent state, the latest values.
  ResultCode Acquire(void*& data) override;
  void Release() override {}

  bool HasSameTypeAs(const Tensor& other) const {
    return kind == other.kind && shape == other.shape;
  }

  void SetAlternating(bool alternates);
  bool Alternates() const { return second.has_value(); }
  void SetTurn(int newTurn) { turn = newTurn; }
  TensorBuffer& ReadOn(int someTurn) { return second && someTurn == 1 ? *second : first; }
  TensorBuffer& WrittenOn(int someTurn) { return second && someTurn == 0 ? *second : first; }
  /// Zero everywhere, and turn 0.
  void Clear();

private:
  std::shared_ptr<const Engine> engine;
  std::uint32_t kind;
  Shape shape;
  TensorBuffer first;
  std::optional<TensorBuffer> second;
  int turn = 0;
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
