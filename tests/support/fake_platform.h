#pragma once

// A scripted engine behind the platform boundary: the model is data and a function, every call is
// recorded by name, any call can be made to fail, and objects are counted.

#include "platform/platform.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

namespace Platform = Orvik::Tesmo::Platform;

struct FakeFeature {
  std::u16string name;
  Platform::Shape shape;
  std::uint32_t tensorKind = Platform::TensorKind::Float;
  Platform::FeatureKind kind = Platform::FeatureKind::Tensor;
};

/// The elements of one bound tensor during an evaluation.
struct FakeTensorView {
  Platform::Shape shape;
  void* data = nullptr;
  std::size_t count = 0;

  float* Floats() const { return static_cast<float*>(data); }
};

/// What a model's function works on, in the order of the features. The inputs never change while it
/// runs, also those of recurrent states. Outputs of states start as zeros; all others hold what the
/// evaluation before left there.
struct FakeEvaluation {
  std::vector<FakeTensorView> inputs;
  std::vector<FakeTensorView> outputs;
};

struct FakeModel {
  std::vector<FakeFeature> inputs;
  std::vector<FakeFeature> outputs;
  std::vector<std::pair<std::u16string, std::u16string>> metadata = {};
  /// Runs at each Evaluate and once in each Prepare. A failing code fails the call.
  std::function<ResultCode(const FakeEvaluation&)> evaluate = {};
};

/// A model with free sizes, input [C, S + L, W], output [K, C, S, W], where class k ("Class0", ...)
/// is the first S windows of the input times `classGains[k]`. W is `windowLength`, or the bins of
/// such a window with their two components.
FakeModel MakeFakeAudioModel(std::int64_t windowLength, std::vector<float> classGains,
                             bool isSpectral = false);

/// The engine. Whatever is made from it may outlive it. One thread at a time.
class FakeRuntime final : public Platform::Runtime {
public:
  explicit FakeRuntime(FakeModel model) : script(std::make_shared<Script>()) {
    script->model = std::move(model);
  }

  /// Every call of the boundary since the last ClearCalls, by the name of the operation, with what
  /// it is given in brackets: "GetInputFeatures", "SetBatchSizeOverride(1)", "CreateTensor(1:2,3)",
  /// "Bind(input)", "Evaluate(RunId)".
  const std::vector<std::string>& GetCalls() const { return script->calls; }
  void ClearCalls() { script->calls.clear(); }
  /// Recording allocates. On at first.
  void SetRecording(bool recording) { script->recording = recording; }

  /// `times` calls from number `n` on, from 1 for the next one, fail with `code`. A name counts
  /// only the calls of that operation (without brackets); null counts all. Replaces what was asked
  /// for before.
  void FailCall(std::size_t n, ResultCode code, const char* operation = nullptr,
                std::size_t times = 1);
  /// Takes FailCall back. True where the call has failed in the meantime.
  bool StopFailing();

  /// For what keeps its engine: this object, which outlives the pointer.
  std::shared_ptr<Platform::Runtime> Shared() { return {std::shared_ptr<void>(), this}; }
  /// The scripted model, loaded. Throws the failure that was asked for.
  std::shared_ptr<Platform::Model> Load();

  /// Objects made and not yet destroyed.
  std::int64_t GetLiveObjects() const { return script->liveObjects; }
  /// Acquire without its Release.
  std::int64_t GetHeldTensors() const { return script->heldTensors; }
  /// Completed Evaluate calls, those in Prepare left out.
  std::int64_t GetEvaluationCount() const { return script->evaluations; }

  ResultCode LoadModel(const void* bytes, std::uint32_t size,
                       std::shared_ptr<Platform::Model>& model) override;
  ResultCode CreateDevice(Platform::DeviceKind kind,
                          std::shared_ptr<Platform::Device>& device) override;
  ResultCode CreateSessionOptions(std::shared_ptr<Platform::SessionOptions>& options) override;
  ResultCode CreateSession(const std::shared_ptr<Platform::Model>& model,
                           const std::shared_ptr<Platform::Device>& device,
                           const std::shared_ptr<Platform::SessionOptions>& options,
                           std::shared_ptr<Platform::Session>& session) override;
  ResultCode CreateBinding(const std::shared_ptr<Platform::Session>& session,
                           std::shared_ptr<Platform::Binding>& binding) override;
  ResultCode CreateTensor(std::uint32_t kind, const Platform::Shape& shape,
                          std::shared_ptr<Platform::Tensor>& tensor) override;

  /// What all objects of one engine share.
  struct Script {
    FakeModel model;
    std::vector<std::string> calls = {};
    bool recording = true;
    std::size_t callsBeforeFailure = 0;
    std::size_t callsToFail = 0;
    const char* failingOperation = nullptr;
    ResultCode failure = 0;
    bool hasFailed = false;
    std::int64_t liveObjects = 0;
    std::int64_t heldTensors = 0;
    std::int64_t evaluations = 0;

    /// Counts a call towards the failure that was asked for.
    ResultCode Enter(const char* operation);
  };

private:
  std::shared_ptr<Script> script;
};

}  // namespace TestSupport
