#include "platform/rig.h"

#include "platform/onnxruntime/runtime.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace TestSupport {

void* OpenEngineModule() {
  void* module = dlopen(KALVRIN_TEST_ENGINE, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (!module) {
    std::fprintf(stderr, "%s\n", dlerror());  // NOLINT(concurrency-mt-unsafe)
    std::abort();
  }
  return module;
}

Runtime& TheRuntime() {
  static const std::shared_ptr<Runtime> runtime = [] {
    std::shared_ptr<Runtime> created;
    CheckResult(CreateOnnxRuntime(OpenEngineModule(), created));
    return created;
  }();
  return *runtime;
}

std::string Hex(ResultCode code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
  return text;
}

std::u16string Wide(std::string_view ascii) {
  return {ascii.begin(), ascii.end()};
}

std::shared_ptr<Tensor> MakeTensor(std::uint32_t kind, const Shape& shape) {
  std::shared_ptr<Tensor> tensor;
  CheckResult(TheRuntime().CreateTensor(kind, shape, tensor));
  return tensor;
}

Rig::Rig(std::string modelBytes) {
  Runtime& runtime = TheRuntime();
  CheckResult(
      runtime.LoadModel(modelBytes.data(), static_cast<std::uint32_t>(modelBytes.size()), model));
  std::fill(modelBytes.begin(), modelBytes.end(), '\xFF');  // not needed any more
  std::shared_ptr<Device> device;
  CheckResult(runtime.CreateDevice(DeviceKind::Cpu, device));
  std::shared_ptr<SessionOptions> options;
  CheckResult(runtime.CreateSessionOptions(options));
  CheckResult(options->SetBatchSizeOverride(1));
  CheckResult(options->SetIntraOpNumThreadsOverride(1));
  CheckResult(runtime.CreateSession(model, device, options, session));
  CheckResult(runtime.CreateBinding(session, binding));
}

ResultCode Rig::Bind(Side side, std::string_view name, const std::shared_ptr<Tensor>& tensor) {
  return binding->Bind(side, Wide(name), tensor);
}

std::shared_ptr<Tensor> Rig::Input(std::string_view name, const Shape& shape, std::uint32_t kind) {
  std::shared_ptr<Tensor> tensor = MakeTensor(kind, shape);
  CheckResult(Bind(Side::Input, name, tensor));
  return tensor;
}

std::shared_ptr<Tensor> Rig::Output(std::string_view name, const Shape& shape, std::uint32_t kind) {
  std::shared_ptr<Tensor> tensor = MakeTensor(kind, shape);
  CheckResult(Bind(Side::Output, name, tensor));
  return tensor;
}

std::shared_ptr<Tensor> Rig::State(std::string_view input, std::string_view output,
                                   const Shape& shape, std::uint32_t kind) {
  std::shared_ptr<Tensor> tensor = Input(input, shape, kind);
  CheckResult(Bind(Side::Output, output, tensor));
  return tensor;
}

}  // namespace TestSupport
