#include "soak/shadowed_runtime.h"

#include "platform/onnxruntime/engine.h"

#include <cstddef>
#include <cstring>
#include <functional>
#include <numeric>
#include <utility>
#include <vector>

namespace TestSupport {

namespace Ort = Orvik::Tesmo::Platform::OnnxRuntime;
using Platform::Side;
using TensorPointer = std::shared_ptr<Platform::Tensor>;
using Bound = std::map<std::string, TensorPointer>;

namespace {

/// Bytes of an element by its kind.
constexpr std::size_t elementSizes[] = {0, 4, 1, 1, 2, 2, 4, 8, 0, 1, 2, 8, 4, 8};

void* Address(Platform::Tensor& tensor) {
  void* data = nullptr;
  CheckResult(tensor.Acquire(data));
  tensor.Release();
  return data;
}

}  // namespace

/// A session of the engine and memory of its own for each of the model's tensors.
class ShadowedRuntime::PlainRun {
public:
  PlainRun(void* module, const std::string& model) : engine(module) {
    engine.Check(engine.Api().createSessionFromBytes(
        engine.Env(), model.data(), model.size(), engine.SessionOptions(),
        Ort::Receive(session, engine.Api().releaseSession)));
  }

  /// New memory, all zero. An input and an output with one tensor are a state.
  void Restart(const Bound& inputTensors, const Bound& outputTensors,
               const std::map<const Platform::Tensor*, TensorFacts>& facts) {
    inputs.clear();
    outputs.clear();
    for (const auto& [name, tensor] : inputTensors)
      Add(inputs, name, facts.at(tensor.get()));
    for (const auto& [name, tensor] : outputTensors) {
      Add(outputs, name, facts.at(tensor.get()));
      for (const auto& [inputName, inputTensor] : inputTensors)
        if (inputTensor == tensor) outputs.at(name).next = &inputs.at(inputName);
    }
  }

  std::vector<std::byte>& Input(const std::string& name) { return inputs.at(name).memory; }
  const std::vector<std::byte>& Output(const std::string& name) { return outputs.at(name).memory; }

  void Run() {
    // the engine's entry for a run without a binding
    const Ort::OrtSlot<Ort::OrtStatus*(Ort::OrtSession*, const Ort::OrtRunOptions*,
                                       const char* const*, const Ort::OrtValue* const*, std::size_t,
                                       const char* const*, std::size_t, Ort::OrtValue**)>
        run{engine.Api().table, 9};
    std::vector<const char*> inputNames, outputNames;
    std::vector<const Ort::OrtValue*> given;
    std::vector<Ort::OrtValue*> taken;
    for (auto& [name, value] : inputs) {
      inputNames.push_back(name.c_str());
      given.push_back(value.handle.get());
    }
    for (auto& [name, value] : outputs) {
      outputNames.push_back(name.c_str());
      taken.push_back(value.handle.get());
    }
    engine.Check(run(session.get(), nullptr, inputNames.data(), given.data(), given.size(),
                     outputNames.data(), taken.size(), taken.data()));
    for (auto& [name, value] : outputs)
      if (value.next)
        std::memcpy(value.next->memory.data(), value.memory.data(), value.memory.size());
  }

private:
  struct Value {
    std::vector<std::byte> memory;
    Ort::Handle<Ort::OrtValue> handle;
    Value* next = nullptr;  ///< the input that takes this output's values to the next run
  };
  using Values = std::map<std::string, Value>;

  void Add(Values& values, const std::string& name, const TensorFacts& facts) {
    const auto count = std::accumulate(facts.shape.begin(), facts.shape.end(), std::int64_t{1},
                                       std::multiplies<>());
    Value& value = values[name];
    value.memory.resize(static_cast<std::size_t>(count) * elementSizes[facts.kind]);
    engine.Check(engine.Api().createTensorOverMemory(
        engine.CpuMemory(), value.memory.data(), value.memory.size(), facts.shape.data(),
        facts.shape.size(), static_cast<int>(facts.kind),
        Ort::Receive(value.handle, engine.Api().releaseValue)));
  }

  Ort::Engine engine;
  Ort::Handle<Ort::OrtSession> session;
  Values inputs, outputs;
};

class ShadowedRuntime::ShadowedBinding final : public Platform::Binding {
public:
  ShadowedBinding(ShadowedRuntime& runtime, std::shared_ptr<Platform::Binding> inner)
      : inner(std::move(inner)), runtime(runtime) {}

  ResultCode Bind(Side side, std::u16string_view name, const TensorPointer& tensor) override {
    (side == Side::Input ? inputs : outputs)[{name.begin(), name.end()}] = tensor;
    return inner->Bind(side, name, tensor);
  }

  ResultCode Prepare() override {
    runtime.plainRun->Restart(inputs, outputs, runtime.facts);
    std::map<const Platform::Tensor*, TensorFacts> living;
    for (const Bound* side : {&inputs, &outputs})
      for (const auto& [name, tensor] : *side)
        living.insert(*runtime.facts.find(tensor.get()));
    runtime.facts = std::move(living);
    return inner->Prepare();
  }

  std::shared_ptr<Platform::Binding> inner;
  Bound inputs, outputs;

private:
  ShadowedRuntime& runtime;
};

class ShadowedRuntime::ShadowedSession final : public Platform::Session {
public:
  ShadowedSession(ShadowedRuntime& runtime, std::shared_ptr<Platform::Session> inner)
      : inner(std::move(inner)), runtime(runtime) {}

  ResultCode Evaluate(Platform::Binding& binding, const char16_t* id) override {
    auto& shadowed = static_cast<ShadowedBinding&>(binding);
    std::vector<std::byte>& audio = runtime.plainRun->Input("input");
    std::memcpy(audio.data(), Address(*shadowed.inputs.at("input")), audio.size());
    const ResultCode code = inner->Evaluate(*shadowed.inner, id);
    runtime.plainRun->Run();
    if (runtime.firstDifference.empty()) runtime.firstDifference = runtime.Difference(shadowed);
    ++runtime.evaluations;
    return code;
  }

  std::shared_ptr<Platform::Session> inner;

private:
  ShadowedRuntime& runtime;
};

std::string ShadowedRuntime::Difference(ShadowedBinding& binding) {
  for (const auto& [name, tensor] : binding.outputs) {
    const std::vector<std::byte>& expected = plainRun->Output(name);
    if (std::memcmp(Address(*tensor), expected.data(), expected.size()) != 0)
      return "the output '" + name + "' of evaluation " + std::to_string(evaluations) +
             " is not that of a plain run";
  }
  return {};
}

ShadowedRuntime::ShadowedRuntime(Platform::Runtime& inner, void* module, const std::string& model)
    : inner(inner), plainRun(std::make_unique<PlainRun>(module, model)) {}

ShadowedRuntime::~ShadowedRuntime() = default;

ResultCode ShadowedRuntime::LoadModel(const void* bytes, std::uint32_t size,
                                      std::shared_ptr<Platform::Model>& model) {
  return inner.LoadModel(bytes, size, model);
}
ResultCode ShadowedRuntime::CreateDevice(Platform::DeviceKind kind,
                                         std::shared_ptr<Platform::Device>& device) {
  return inner.CreateDevice(kind, device);
}
ResultCode
ShadowedRuntime::CreateSessionOptions(std::shared_ptr<Platform::SessionOptions>& options) {
  return inner.CreateSessionOptions(options);
}

ResultCode ShadowedRuntime::CreateSession(const std::shared_ptr<Platform::Model>& model,
                                          const std::shared_ptr<Platform::Device>& device,
                                          const std::shared_ptr<Platform::SessionOptions>& options,
                                          std::shared_ptr<Platform::Session>& session) {
  std::shared_ptr<Platform::Session> made;
  const ResultCode code = inner.CreateSession(model, device, options, made);
  session = std::make_shared<ShadowedSession>(*this, made);
  return code;
}

ResultCode ShadowedRuntime::CreateBinding(const std::shared_ptr<Platform::Session>& session,
                                          std::shared_ptr<Platform::Binding>& binding) {
  std::shared_ptr<Platform::Binding> made;
  const ResultCode code = inner.CreateBinding(static_cast<ShadowedSession&>(*session).inner, made);
  binding = std::make_shared<ShadowedBinding>(*this, made);
  return code;
}

ResultCode ShadowedRuntime::CreateTensor(std::uint32_t kind, const Platform::Shape& shape,
                                         TensorPointer& tensor) {
  const ResultCode code = inner.CreateTensor(kind, shape, tensor);
  facts[tensor.get()] = {kind, shape};
  return code;
}

}  // namespace TestSupport
