#include "platform/onnxruntime/runtime.h"

#include "platform/onnxruntime/engine.h"
#include "platform/onnxruntime/model.h"
#include "platform/onnxruntime/model_store.h"
#include "platform/onnxruntime/session.h"
#include "platform/onnxruntime/tensor.h"

#include <utility>

namespace Orvik::Tesmo::Platform {
namespace OnnxRuntime {
namespace {

/// The objects that come in as arguments are this implementation's own: a program has one.
class Runtime final : public Platform::Runtime {
public:
  explicit Runtime(std::shared_ptr<const Engine> engine) : engine(std::move(engine)) {}

  ResultCode LoadModel(const void* bytes, std::uint32_t size,
                       std::shared_ptr<Platform::Model>& model) override {
    return Guarded([&] {
      if (!bytes || size == 0) Refuse(ResultCodes::InvalidArgument, "there are no model bytes");
      model = std::make_shared<Model>(models.Load(engine, bytes, size));
    });
  }

  ResultCode CreateDevice(DeviceKind kind, std::shared_ptr<Platform::Device>& device) override {
    return Guarded([&] {
      if (kind != DeviceKind::Cpu && kind != DeviceKind::Default)
        Refuse(ResultCodes::InvalidArgument, "there is no such device");
      device = std::make_shared<Device>();
    });
  }

  ResultCode CreateSessionOptions(std::shared_ptr<Platform::SessionOptions>& options) override {
    return Guarded([&] { options = std::make_shared<SessionOptions>(); });
  }

  ResultCode CreateSession(const std::shared_ptr<Platform::Model>& model,
                           const std::shared_ptr<Platform::Device>& device,
                           const std::shared_ptr<Platform::SessionOptions>& options,
                           std::shared_ptr<Platform::Session>& session) override {
    return Guarded([&] {
      if (!model || !device || !options)
        Refuse(ResultCodes::InvalidArgument, "a session needs a model, a device and options");
      session = std::make_shared<Session>(static_cast<const Model&>(*model).Parsed());
    });
  }

  ResultCode CreateBinding(const std::shared_ptr<Platform::Session>& session,
                           std::shared_ptr<Platform::Binding>& binding) override {
    return Guarded([&] {
      if (!session) Refuse(ResultCodes::InvalidArgument, "a binding needs a session");
      binding = std::make_shared<Binding>(std::static_pointer_cast<const Session>(session));
    });
  }

  ResultCode CreateTensor(std::uint32_t kind, const Shape& shape,
                          std::shared_ptr<Platform::Tensor>& tensor) override {
    return Guarded([&] { tensor = std::make_shared<Tensor>(engine, kind, shape); });
  }

private:
  std::shared_ptr<const Engine> engine;
  ModelStore models;
};

}  // namespace
}  // namespace OnnxRuntime

ResultCode CreateOnnxRuntime(void* module, std::shared_ptr<Runtime>& runtime) {
  return OnnxRuntime::Guarded([&] {
    runtime =
        std::make_shared<OnnxRuntime::Runtime>(std::make_shared<const OnnxRuntime::Engine>(module));
  });
}

}  // namespace Orvik::Tesmo::Platform
