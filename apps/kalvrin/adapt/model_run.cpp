#include "adapt/model_run.h"

#include "failure/result_code.h"
#include "runtime/model_loading.h"
#include "runtime/tensor_factory.h"
#include "runtime/text.h"

#include <algorithm>

namespace Orvik::Tesmo::Tool {

ModelRun::ModelRun(Platform::Runtime& runtime, const std::string& bytes) : runtime(runtime) {
  const auto model = Dnn::LoadLearningModel(runtime, bytes.data(), bytes.size());
  session = Dnn::CreateSession(runtime, model, Dnn::CreateCpuDevice(runtime));
  binding = Dnn::CreateBinding(runtime, session);
}

std::size_t ModelRun::Bind(Platform::Side side, const std::string& name,
                           const Platform::Shape& shape) {
  Bound added{nullptr, Dnn::ElementCount(shape)};
  CheckResult(runtime.CreateTensor(Platform::TensorKind::Float, shape, added.tensor));
  Connect(side, name, added.tensor);
  bound.push_back(added);
  return bound.size() - 1;
}

void ModelRun::BindState(const std::string& input, const std::string& output, std::uint32_t kind,
                         const Platform::Shape& shape) {
  std::shared_ptr<Platform::Tensor> tensor;
  Dnn::ElementCount(shape);
  CheckResult(runtime.CreateTensor(kind, shape, tensor));
  Connect(Platform::Side::Input, input, tensor);
  Connect(Platform::Side::Output, output, tensor);
}

void ModelRun::Restart() {
  CheckResult(binding->Prepare());
}

void ModelRun::Evaluate() {
  CheckResult(session->Evaluate(*binding, nullptr));
}

void ModelRun::Set(std::size_t tensor, const std::vector<float>& values) {
  void* data = nullptr;
  CheckResult(bound[tensor].tensor->Acquire(data));
  std::ranges::copy(values, static_cast<float*>(data));
  bound[tensor].tensor->Release();
}

std::vector<float> ModelRun::Get(std::size_t tensor) {
  void* data = nullptr;
  CheckResult(bound[tensor].tensor->Acquire(data));
  const auto* const values = static_cast<const float*>(data);
  std::vector<float> copy(values, values + bound[tensor].size);
  bound[tensor].tensor->Release();
  return copy;
}

void ModelRun::Connect(Platform::Side side, const std::string& name,
                       const std::shared_ptr<Platform::Tensor>& tensor) {
  CheckResult(binding->Bind(side, Dnn::Utf16FromUtf8(name), tensor));
}

}  // namespace Orvik::Tesmo::Tool
