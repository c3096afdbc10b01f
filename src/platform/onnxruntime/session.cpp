#include "platform/onnxruntime/session.h"

#include <algorithm>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

ResultCode SessionOptions::SetBatchSizeOverride(std::uint32_t size) {
  return size == 1 ? ResultCodes::Ok
                   : Refused(ResultCodes::NotImplemented, "only a batch size of 1 is served");
}

ResultCode SessionOptions::SetIntraOpNumThreadsOverride(std::uint32_t threads) {
  return threads == 1 ? ResultCodes::Ok
                      : Refused(ResultCodes::NotImplemented, "only one thread is served");
}

ResultCode Session::Evaluate(Platform::Binding& binding, const char16_t*) {
  auto& bound = static_cast<Binding&>(binding);
  if (bound.BoundSession() != this)
    return Refused(ResultCodes::InvalidArgument, "the binding is another session's");
  return bound.Evaluate();
}

Binding::Binding(std::shared_ptr<const Session> usedSession)
    : session(std::move(usedSession)), inputs(session->Model().Features(Side::Input).size()),
      outputs(session->Model().Features(Side::Output).size()) {}

ResultCode Binding::Bind(Side side, std::u16string_view name,
                         const std::shared_ptr<Platform::Tensor>& tensor) {
  return Guarded([&] {
    const std::vector<Feature>& features = session->Model().Features(side);
    const auto found = std::find_if(features.begin(), features.end(),
                                    [&](const Feature& feature) { return feature.name == name; });
    if (found == features.end() || !tensor)
      Refuse(ResultCodes::InvalidArgument, "the model has no such feature, or there is no tensor");
    BoundTensors& tensors = side == Side::Input ? inputs : outputs;
    tensors[static_cast<std::size_t>(found - features.begin())] =
        std::static_pointer_cast<Tensor>(tensor);
  });
}

ResultCode Binding::Prepare() {
  return Guarded([&] {
    evaluation.reset();
    evaluation.emplace(session->Model(), session->Opened(), inputs, outputs);
  });
}

ResultCode Binding::Evaluate() noexcept {
  if (!evaluation)
    return Refused(ResultCodes::IllegalMethodCall, "the binding has not been prepared");
  return evaluation->Run();
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
