#include "soak/shadowed_runtime.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <map>
#include <numeric>
#include <utility>
#include <vector>

namespace TestSupport {
namespace {

namespace Ort = Platform::OnnxRuntime;

/// Bytes of an element by its kind.
constexpr std::size_t elementSizes[] = {0, 4, 1, 1, 2, 2, 4, 8, 0, 1, 2, 8, 4, 8};

/// Zeros of the plain run's own, and the engine's value over them.
struct PlainTensor {
  PlainTensor(const Ort::Engine& engine, std::uint32_t kind, const Platform::Shape& shape)
      : memory(static_cast<std::size_t>(std::accumulate(shape.begin(), shape.end(), std::int64_t{1},
                                                        std::multiplies<>())) *
               elementSizes[kind]) {
    engine.Check(engine.Api().createTensorOverMemory(
        engine.CpuMemory(), memory.data(), memory.size(), shape.data(), shape.size(),
        static_cast<int>(kind), Ort::Receive(value, engine.Api().releaseValue)));
  }

  std::vector<std::byte> memory;
  Ort::Handle<Ort::OrtValue> value;
};

}  // namespace

/// What a plain run reads and writes stands apart, also in a state's tensor.
class ShadowedRuntime::ShadowedTensor final : public Platform::Tensor {
public:
  ShadowedTensor(const Ort::Engine& engine, std::uint32_t kind, const Platform::Shape& shape,
                 std::shared_ptr<Platform::Tensor> inner)
      : inner(std::move(inner)), read(engine, kind, shape), written(engine, kind, shape) {}

  ResultCode Acquire(void*& data) override { return inner->Acquire(data); }
  void Release() override { inner->Release(); }
  void* Data() {
    void* data = nullptr;
    CheckResult(Acquire(data));
    Release();
    return data;
  }

  std::shared_ptr<Platform::Tensor> inner;
  PlainTensor read, written;
};

class ShadowedRuntime::ShadowedBinding final : public Platform::Binding {
public:
  explicit ShadowedBinding(std::shared_ptr<Platform::Binding> inner) : inner(std::move(inner)) {}

  ResultCode Bind(Platform::Side side, std::u16string_view name,
                  const std::shared_ptr<Platform::Tensor>& tensor) override {
    const auto shadowed = std::static_pointer_cast<ShadowedTensor>(tensor);
    (side == Platform::Side::Input ? inputs : outputs)[{name.begin(), name.end()}] = shadowed;
    return inner->Bind(side, name, shadowed->inner);
  }

  ResultCode Prepare() override {
    for (const auto& [name, tensor] : inputs)
      std::ranges::fill(tensor->read.memory, std::byte{});
    return inner->Prepare();
  }

  std::shared_ptr<Platform::Binding> inner;
  std::map<std::string, std::shared_ptr<ShadowedTensor>> inputs, outputs;
};

class ShadowedRuntime::ShadowedSession final : public Platform::Session {
public:
  ShadowedSession(ShadowedRuntime& runtime, std::shared_ptr<Platform::Session> inner)
      : inner(std::move(inner)), runtime(runtime) {}

  ResultCode Evaluate(Platform::Binding& binding, const char16_t* id) override {
    auto& shadowed = static_cast<ShadowedBinding&>(binding);
    ShadowedTensor& audio = *shadowed.inputs.at("input");
    std::memcpy(audio.read.memory.data(), audio.Data(), audio.read.memory.size());
    const ResultCode code = inner->Evaluate(*shadowed.inner, id);
    RunPlainly(shadowed);
    for (const auto& [name, tensor] : shadowed.outputs) {
      const std::vector<std::byte>& expected = tensor->written.memory;
      if (std::memcmp(tensor->Data(), expected.data(), expected.size()) != 0 &&
          runtime.firstDifference.empty())
        runtime.firstDifference = "the output '" + name + "' of evaluation " +
                                  std::to_string(runtime.evaluations) +
                                  " is not that of a plain run";
      std::ranges::copy(expected, tensor->read.memory.begin());  // a state's, for the next run
    }
    ++runtime.evaluations;
    return code;
  }

  std::shared_ptr<Platform::Session> inner;

private:
  void RunPlainly(const ShadowedBinding& binding) {
    const Ort::Engine& engine = runtime.engine;
    // the engine's entry for a run without a binding
    const Ort::OrtSlot<Ort::OrtStatus*(Ort::OrtSession*, const Ort::OrtRunOptions*,
                                       const char* const*, const Ort::OrtValue* const*, std::size_t,
                                       const char* const*, std::size_t, Ort::OrtValue**)>
        run{engine.Api().table, 9};
    std::vector<const char*> inputNames, outputNames;
    std::vector<const Ort::OrtValue*> given;
    std::vector<Ort::OrtValue*> taken;
    for (const auto& [name, tensor] : binding.inputs) {
      inputNames.push_back(name.c_str());
      given.push_back(tensor->read.value.get());
    }
    for (const auto& [name, tensor] : binding.outputs) {
      outputNames.push_back(name.c_str());
      taken.push_back(tensor->written.value.get());
    }
    engine.Check(run(runtime.plainSession.get(), nullptr, inputNames.data(), given.data(),
                     given.size(), outputNames.data(), taken.size(), taken.data()));
  }

  ShadowedRuntime& runtime;
};

ShadowedRuntime::ShadowedRuntime(Platform::Runtime& inner, void* module, const std::string& model)
    : inner(inner), engine(module) {
  engine.Check(engine.Api().createSessionFromBytes(
      engine.Env(), model.data(), model.size(), engine.SessionOptions(),
      Ort::Receive(plainSession, engine.Api().releaseSession)));
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
  binding = std::make_shared<ShadowedBinding>(made);
  return code;
}

ResultCode ShadowedRuntime::CreateTensor(std::uint32_t kind, const Platform::Shape& shape,
                                         std::shared_ptr<Platform::Tensor>& tensor) {
  std::shared_ptr<Platform::Tensor> made;
  const ResultCode code = inner.CreateTensor(kind, shape, made);
  tensor = std::make_shared<ShadowedTensor>(engine, kind, shape, made);
  return code;
}

}  // namespace TestSupport
