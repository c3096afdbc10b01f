#include "render/render_model.h"

#include "runtime/model_loading.h"
#include "stream/assemble_stream.h"

#include <utility>

namespace Orvik::Tesmo::Tool {

/// The engine, but that every loading after the first gives the model of the first: streams share
/// it, each with tensors and states of its own.
class RenderModel::SharedModel final : public Platform::Runtime {
public:
  explicit SharedModel(Platform::Runtime& engine) : engine(engine) {}

  ResultCode LoadModel(const void* bytes, std::uint32_t size,
                       std::shared_ptr<Platform::Model>& model) override {
    if (!loaded)
      if (const ResultCode code = engine.LoadModel(bytes, size, loaded); Failed(code)) return code;
    model = loaded;
    return ResultCodes::Ok;
  }
  ResultCode CreateDevice(Platform::DeviceKind kind,
                          std::shared_ptr<Platform::Device>& device) override {
    return engine.CreateDevice(kind, device);
  }
  ResultCode CreateSessionOptions(std::shared_ptr<Platform::SessionOptions>& options) override {
    return engine.CreateSessionOptions(options);
  }
  ResultCode CreateSession(const std::shared_ptr<Platform::Model>& model,
                           const std::shared_ptr<Platform::Device>& device,
                           const std::shared_ptr<Platform::SessionOptions>& options,
                           std::shared_ptr<Platform::Session>& session) override {
    return engine.CreateSession(model, device, options, session);
  }
  ResultCode CreateBinding(const std::shared_ptr<Platform::Session>& session,
                           std::shared_ptr<Platform::Binding>& binding) override {
    return engine.CreateBinding(session, binding);
  }
  ResultCode CreateTensor(std::uint32_t kind, const Platform::Shape& shape,
                          std::shared_ptr<Platform::Tensor>& tensor) override {
    return engine.CreateTensor(kind, shape, tensor);
  }

private:
  Platform::Runtime& engine;
  std::shared_ptr<Platform::Model> loaded;
};

RenderModel::RenderModel(std::string path) : path(std::move(path)) {}

RenderModel::~RenderModel() = default;

void RenderModel::Load() {
  if (facts) return;
  if (!file) {
    file = ReadModelFile(path);
    path = file->path;
  }
  if (!engine) engine.emplace();
  if (!shared) shared = std::make_unique<SharedModel>(engine->Runtime());
  const auto model = Dnn::LoadLearningModel(*shared, file->bytes.data(), file->bytes.size());
  description = Diagnosis::DescribeModel(*model);
  facts.emplace(*model);
}

std::unique_ptr<StreamProcessor> RenderModel::MakeStream(const Diagnosis::StreamRequest& settled) {
  return AssembleStream(*shared, file->bytes.data(), file->bytes.size(), settled.sequenceSize,
                        settled.channelCount, settled.blockFrames);
}

}  // namespace Orvik::Tesmo::Tool
