#pragma once

#include "platform/onnxruntime/engine.h"
#include "platform/platform.h"

#include <cstdint>
#include <memory>
#include <string>

namespace TestSupport {

namespace Platform = Orvik::Tesmo::Platform;

/// An engine behind the boundary with a second one in its shadow: each evaluation is repeated by a
/// plain run of a session of its own, whose states are handed from run to run by copying, and all
/// outputs and states are compared bit by bit. For one model, and tensors of numbers.
class ShadowedRuntime final : public Platform::Runtime {
public:
  /// `module` is the engine's, opened; `model` the bytes of the model that will be loaded.
  ShadowedRuntime(Platform::Runtime& inner, void* module, const std::string& model);

  std::uint64_t GetEvaluationCount() const { return evaluations; }
  /// Empty while all agreed.
  const std::string& GetFirstDifference() const { return firstDifference; }

  ResultCode LoadModel(const void* bytes, std::uint32_t size,
                       std::shared_ptr<Platform::Model>& model) override {
    return inner.LoadModel(bytes, size, model);
  }
  ResultCode CreateDevice(Platform::DeviceKind kind,
                          std::shared_ptr<Platform::Device>& device) override {
    return inner.CreateDevice(kind, device);
  }
  ResultCode CreateSessionOptions(std::shared_ptr<Platform::SessionOptions>& options) override {
    return inner.CreateSessionOptions(options);
  }
  ResultCode CreateSession(const std::shared_ptr<Platform::Model>& model,
                           const std::shared_ptr<Platform::Device>& device,
                           const std::shared_ptr<Platform::SessionOptions>& options,
                           std::shared_ptr<Platform::Session>& session) override;
  ResultCode CreateBinding(const std::shared_ptr<Platform::Session>& session,
                           std::shared_ptr<Platform::Binding>& binding) override;
  ResultCode CreateTensor(std::uint32_t kind, const Platform::Shape& shape,
                          std::shared_ptr<Platform::Tensor>& tensor) override;

private:
  class ShadowedTensor;
  class ShadowedBinding;
  class ShadowedSession;

  Platform::Runtime& inner;
  Platform::OnnxRuntime::Engine engine;
  Platform::OnnxRuntime::Handle<Platform::OnnxRuntime::OrtSession> plainSession;
  std::uint64_t evaluations = 0;
  std::string firstDifference;
};

}  // namespace TestSupport
