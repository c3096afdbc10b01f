#pragma once

#include "platform/onnxruntime/engine.h"
#include "platform/platform.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

namespace Platform = Orvik::Tesmo::Platform;
namespace Ort = Platform::OnnxRuntime;

/// An engine behind the boundary with a second one in its shadow: each evaluation is repeated by a
/// plain run of a session of its own, whose states are handed from run to run by copying, and all
/// outputs and states are compared bit by bit. For one model, and tensors of numbers.
class ShadowedRuntime final : public Platform::Runtime {
public:
  /// `module` is the engine's, opened; `model` the bytes of the model that will be loaded.
  ShadowedRuntime(Platform::Runtime& inner, void* module, const std::string& model)
      : inner(inner), engine(module) {
    engine.Check(engine.Api().createSessionFromBytes(
        engine.Env(), model.data(), model.size(), engine.SessionOptions(),
        Ort::Receive(plainSession, engine.Api().releaseSession)));
  }

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
                           std::shared_ptr<Platform::Session>& session) override {
    const auto made = std::make_shared<ShadowedSession>(*this);
    session = made;
    return inner.CreateSession(model, device, options, made->inner);
  }
  ResultCode CreateBinding(const std::shared_ptr<Platform::Session>& session,
                           std::shared_ptr<Platform::Binding>& binding) override {
    const auto made = std::make_shared<ShadowedBinding>();
    binding = made;
    return inner.CreateBinding(static_cast<ShadowedSession&>(*session).inner, made->inner);
  }
  ResultCode CreateTensor(std::uint32_t kind, const Platform::Shape& shape,
                          std::shared_ptr<Platform::Tensor>& tensor) override {
    const auto made = std::make_shared<ShadowedTensor>(engine, kind, shape);
    tensor = made;
    return inner.CreateTensor(kind, shape, made->inner);
  }

private:
  /// Zeros of the plain run's own, and the engine's value over them.
  struct PlainTensor {
    PlainTensor(const Ort::Engine& engine, std::uint32_t kind, const Platform::Shape& shape) {
      /// Bytes of an element by its kind.
      constexpr std::size_t elementSizes[] = {0, 4, 1, 1, 2, 2, 4, 8, 0, 1, 2, 8, 4, 8};
      memory.resize(static_cast<std::size_t>(std::accumulate(
                        shape.begin(), shape.end(), std::int64_t{1}, std::multiplies<>())) *
                    elementSizes[kind]);
      engine.Check(engine.Api().createTensorOverMemory(
          engine.CpuMemory(), memory.data(), memory.size(), shape.data(), shape.size(),
          static_cast<int>(kind), Ort::Receive(value, engine.Api().releaseValue)));
    }

    std::vector<std::byte> memory;
    Ort::Handle<Ort::OrtValue> value;
  };

  /// What a plain run reads and writes stands apart, also in a state's tensor.
  struct ShadowedTensor final : Platform::Tensor {
    ShadowedTensor(const Ort::Engine& engine, std::uint32_t kind, const Platform::Shape& shape)
        : read(engine, kind, shape), written(engine, kind, shape) {}
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

  struct ShadowedBinding final : Platform::Binding {
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

  struct ShadowedSession final : Platform::Session {
    explicit ShadowedSession(ShadowedRuntime& runtime) : runtime(runtime) {}
    ResultCode Evaluate(Platform::Binding& binding, const char16_t* id) override {
      auto& shadowed = static_cast<ShadowedBinding&>(binding);
      ShadowedTensor& audio = *shadowed.inputs.at("input");
      std::memcpy(audio.read.memory.data(), audio.Data(), audio.read.memory.size());
      const ResultCode code = inner->Evaluate(*shadowed.inner, id);
      runtime.RunPlainly(shadowed);
      return code;
    }

    ShadowedRuntime& runtime;
    std::shared_ptr<Platform::Session> inner;
  };

  void RunPlainly(const ShadowedBinding& binding) {
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
    engine.Check(run(plainSession.get(), nullptr, inputNames.data(), given.data(), given.size(),
                     outputNames.data(), taken.size(), taken.data()));
    for (const auto& [name, tensor] : binding.outputs) {
      const std::vector<std::byte>& expected = tensor->written.memory;
      if (std::memcmp(tensor->Data(), expected.data(), expected.size()) != 0 &&
          firstDifference.empty())
        firstDifference = "the output '" + name + "' of evaluation " + std::to_string(evaluations) +
                          " is not that of a plain run";
      std::ranges::copy(expected, tensor->read.memory.begin());  // a state's, for the next run
    }
    ++evaluations;
  }

  Platform::Runtime& inner;
  Ort::Engine engine;
  Ort::Handle<Ort::OrtSession> plainSession;
  std::uint64_t evaluations = 0;
  std::string firstDifference;
};

}  // namespace TestSupport
