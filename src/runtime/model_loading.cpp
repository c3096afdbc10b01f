#include "runtime/model_loading.h"

#include "failure/exceptions.h"

namespace Orvik::Tesmo::Dnn {

std::shared_ptr<Platform::Model> LoadLearningModel(Platform::Runtime& runtime,
                                                   const void* modelData, std::uint64_t modelSize) {
  const auto size = static_cast<std::uint32_t>(modelSize);
  if (!modelData && size != 0) throw ContractException(RefusalReason::NoModelBytes);
  std::shared_ptr<Platform::Model> model;
  CheckResult(runtime.LoadModel(modelData, size, model));
  return model;
}

std::shared_ptr<Platform::Device> CreateCpuDevice(Platform::Runtime& runtime) {
  std::shared_ptr<Platform::Device> device;
  CheckResult(runtime.CreateDevice(Platform::DeviceKind::Cpu, device));
  return device;
}

std::shared_ptr<Platform::SessionOptions> CreateSessionOptions(Platform::Runtime& runtime) {
  std::shared_ptr<Platform::SessionOptions> options;
  CheckResult(runtime.CreateSessionOptions(options));
  CheckResult(options->SetBatchSizeOverride(1));
  (void)options->SetIntraOpNumThreadsOverride(1);  // an engine that refuses is only slower
  return options;
}

std::shared_ptr<Platform::Session> CreateSession(Platform::Runtime& runtime,
                                                 const std::shared_ptr<Platform::Model>& model,
                                                 const std::shared_ptr<Platform::Device>& device) {
  std::shared_ptr<Platform::Session> session;
  CheckResult(runtime.CreateSession(model, device, CreateSessionOptions(runtime), session));
  return session;
}

std::shared_ptr<Platform::Binding>
CreateBinding(Platform::Runtime& runtime, const std::shared_ptr<Platform::Session>& session) {
  std::shared_ptr<Platform::Binding> binding;
  CheckResult(runtime.CreateBinding(session, binding));
  return binding;
}

}  // namespace Orvik::Tesmo::Dnn
