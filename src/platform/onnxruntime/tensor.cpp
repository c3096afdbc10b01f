#include "platform/onnxruntime/tensor.h"

namespace Orvik::Tesmo::Platform::OnnxRuntime {

ResultCode Tensor::Acquire(void*& data) {
  if (first.HasStrings())
    return Refused(ResultCodes::NoInterface, "the elements of a string tensor have no address");
  data = ReadOn(turn).Data();
  return ResultCodes::Ok;
}

void Tensor::SetAlternating(bool alternates) {
  turn = 0;
  if (!alternates)
    second.reset();
  else if (!second)
    second.emplace(engine, kind, shape);
}

void Tensor::Clear() {
  first.Clear();
  if (second) second->Clear();
  turn = 0;
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
