#pragma once

#include "platform/onnxruntime/evaluation.h"
#include "platform/onnxruntime/parsed_model.h"
#include "platform/platform.h"

#include <memory>
#include <optional>
#include <utility>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

class Device final : public Platform::Device {};

/// The engine's options are the same for every session and already in force when the model was
/// read, so these only tell whether what is asked for is what there is.
class SessionOptions final : public Platform::SessionOptions {
public:
  /// The engine has no batch of its own: it takes all sizes from the bound tensors, and an
  /// evaluation is one pass over them. That is a batch of 1; NotImplemented for any other.
  ResultCode SetBatchSizeOverride(std::uint32_t size) override;
  /// Every session runs on the calling thread alone; NotImplemented for more threads than 1.
  ResultCode SetIntraOpNumThreadsOverride(std::uint32_t threads) override;
};

class Session final : public Platform::Session {
public:
  explicit Session(std::shared_ptr<const ParsedModel> usedModel)
      : model(std::move(usedModel)), engineSession(model->OpenSession()) {}

  ResultCode Evaluate(Platform::Binding& binding, const char16_t* correlationId) override;

  const ParsedModel& Model() const { return *model; }
  OrtSession* Opened() const { return engineSession.session.get(); }

private:
  std::shared_ptr<const ParsedModel> model;
  EngineSession engineSession;
};

class Binding final : public Platform::Binding {
public:
  explicit Binding(std::shared_ptr<const Session> session);

  ResultCode Bind(Side side, std::u16string_view name,
                  const std::shared_ptr<Platform::Tensor>& tensor) override;
  ResultCode Prepare() override;

  const Session* BoundSession() const { return session.get(); }
  ResultCode Evaluate() noexcept;

private:
  std::shared_ptr<const Session> session;
  BoundTensors inputs, outputs;
  std::optional<Evaluation> evaluation;
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
