#include "support/fake_platform.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <numeric>
#include <stdexcept>
#include <tuple>
#include <type_traits>

namespace TestSupport {

using Platform::Shape;
using Platform::Side;

ResultCode FakeRuntime::Script::Enter(const char* operation) {
  if (callsToFail == 0 || (failingOperation && std::strcmp(failingOperation, operation) != 0))
    return ResultCodes::Ok;
  if (callsBeforeFailure > 0) {
    --callsBeforeFailure;
    return ResultCodes::Ok;
  }
  --callsToFail;
  hasFailed = true;
  return failure;
}

namespace {

using Script = FakeRuntime::Script;
using ScriptPtr = std::shared_ptr<Script>;

/// Runs `work`, which returns a code or nothing, behind the gate of the script, and turns what it
/// throws into a code, as the boundary asks for. `numbers` returns what the record has in brackets.
template <class Work, class Numbers = std::string (*)()>
ResultCode Call(
    Script& script, const char* operation, Work work,
    Numbers numbers = [] { return std::string(); }) {
  try {
    if (script.recording) script.calls.push_back(operation + numbers());
    if (const ResultCode code = script.Enter(operation); Failed(code)) return code;
    if constexpr (std::is_void_v<decltype(work())>) {
      work();
      return ResultCodes::Ok;
    } else {
      return work();
    }
  } catch (...) {
    return ResultCodeForCurrentException();
  }
}

/// Of an ASCII text.
std::string InBrackets(std::u16string_view text) {
  return '(' + std::string(text.begin(), text.end()) + ')';
}

/// An operation that makes an object.
template <class Object, class Place, class... Arguments>
ResultCode Make(const ScriptPtr& script, const char* operation, Place& place,
                const Arguments&... arguments) {
  return Call(*script, operation, [&] { place = std::make_shared<Object>(script, arguments...); });
}

/// Every object of the fake: counted, and with a hold on the script.
template <class Interface>
class Counted : public Interface {
public:
  explicit Counted(ScriptPtr script) : script(std::move(script)) { ++this->script->liveObjects; }
  ~Counted() override { --script->liveObjects; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

protected:
  ScriptPtr script;
};

using FakeDevice = Counted<Platform::Device>;

/// Of a feature that is no tensor the library asks no more than the kind.
class FakeDescriptor final : public Counted<Platform::FeatureDescriptor> {
public:
  FakeDescriptor(const ScriptPtr& script, const FakeFeature& feature)
      : Counted(script), feature(feature) {}
  ResultCode GetName(std::u16string& name) const override {
    return Call(*script, "GetName", [&] { name = feature.name; });
  }
  ResultCode GetKind(Platform::FeatureKind& kind) const override {
    return Call(*script, "GetKind", [&] { kind = feature.kind; });
  }
  ResultCode GetTensorKind(std::uint32_t& kind) const override {
    return Call(*script, "GetTensorKind", [&] { kind = feature.tensorKind; });
  }
  ResultCode GetShape(Shape& shape) const override {
    return Call(*script, "GetShape", [&] { shape = feature.shape; });
  }

private:
  const FakeFeature& feature;
};

class FakeList final : public Counted<Platform::FeatureList> {
public:
  FakeList(const ScriptPtr& script, const std::vector<FakeFeature>& features)
      : Counted(script), features(features) {}
  ResultCode GetSize(std::uint32_t& size) const override {
    return Call(*script, "GetSize", [&] { size = static_cast<std::uint32_t>(features.size()); });
  }
  ResultCode GetAt(std::uint32_t index,
                   std::shared_ptr<Platform::FeatureDescriptor>& feature) const override {
    return Call(*script, "GetAt",
                [&] { feature = std::make_shared<FakeDescriptor>(script, features.at(index)); });
  }

private:
  const std::vector<FakeFeature>& features;
};

class FakeIterator final : public Counted<Platform::MetadataIterator> {
public:
  using Counted::Counted;
  ResultCode HasCurrent(bool& has) const override {
    return Call(*script, "HasCurrent", [&] { has = position < script->model.metadata.size(); });
  }
  ResultCode Current(std::u16string& key, std::u16string& value) const override {
    return Call(*script, "Current",
                [&] { std::tie(key, value) = script->model.metadata.at(position); });
  }
  ResultCode MoveNext() override {
    return Call(*script, "MoveNext", [&] { ++position; });
  }

private:
  std::size_t position = 0;
};

class FakeMetadata final : public Counted<Platform::MetadataMap> {
public:
  using Counted::Counted;
  ResultCode Lookup(std::u16string_view key, std::u16string& value) const override {
    return Call(*script, "Lookup", [&] {
      const auto& entries = script->model.metadata;
      const auto found = std::find_if(entries.begin(), entries.end(),
                                      [&](const auto& entry) { return entry.first == key; });
      if (found == entries.end()) return ResultCodes::OutOfBounds;
      value = found->second;
      return ResultCodes::Ok;
    });
  }
  ResultCode First(std::shared_ptr<Platform::MetadataIterator>& iterator) const override {
    return Make<FakeIterator>(script, "First", iterator);
  }
};

class FakeLoadedModel final : public Counted<Platform::Model> {
public:
  using Counted::Counted;
  ResultCode GetInputFeatures(std::shared_ptr<Platform::FeatureList>& features) const override {
    return Make<FakeList>(script, "GetInputFeatures", features, script->model.inputs);
  }
  ResultCode GetOutputFeatures(std::shared_ptr<Platform::FeatureList>& features) const override {
    return Make<FakeList>(script, "GetOutputFeatures", features, script->model.outputs);
  }
  ResultCode GetMetadata(std::shared_ptr<Platform::MetadataMap>& metadata) const override {
    return Make<FakeMetadata>(script, "GetMetadata", metadata);
  }
};

class FakeOptions final : public Counted<Platform::SessionOptions> {
public:
  using Counted::Counted;
  ResultCode SetBatchSizeOverride(std::uint32_t size) override {
    return Set("SetBatchSizeOverride", size);
  }
  ResultCode SetIntraOpNumThreadsOverride(std::uint32_t threads) override {
    return Set("SetIntraOpNumThreadsOverride", threads);
  }

private:
  ResultCode Set(const char* operation, std::uint32_t number) {
    return Call(
        *script, operation, [] {}, [&] { return "(" + std::to_string(number) + ")"; });
  }
};

class FakeTensor final : public Counted<Platform::Tensor> {
public:
  FakeTensor(const ScriptPtr& script, std::uint32_t kind, const Shape& shape)
      : Counted(script), kind(kind), view{shape} {
    view.count = std::accumulate(
        shape.begin(), shape.end(), std::size_t{1},
        [](std::size_t count, std::int64_t d) { return count * static_cast<std::size_t>(d); });
    elements.resize(view.count);
    next.resize(view.count);
    view.data = elements.data();
  }
  ResultCode Acquire(void*& data) override {
    return Call(*script, "Acquire", [&] {
      ++script->heldTensors;
      data = view.data;
    });
  }
  void Release() override {
    --script->heldTensors;
    if (script->recording) script->calls.emplace_back("Release");
  }
  void Clear() noexcept { std::fill(elements.begin(), elements.end(), 0); }
  /// Zeros to write a state's next values to, until they are taken.
  void* NextValues() noexcept {
    std::fill(next.begin(), next.end(), 0);
    return next.data();
  }
  void TakeNextValues() noexcept {
    elements.swap(next);
    view.data = elements.data();
  }
  /// The model declares this feature of `tensor`.
  bool Fits(const FakeFeature& feature) const {
    return feature.tensorKind == kind &&
           std::equal(feature.shape.begin(), feature.shape.end(), view.shape.begin(),
                      view.shape.end(), [](std::int64_t declared, std::int64_t dimension) {
                        return declared < 1 || declared == dimension;
                      });
  }

  const std::uint32_t kind;
  FakeTensorView view;

private:
  std::vector<std::uint64_t> elements, next;  ///< one per element of any kind: the largest fits
};

class FakeBinding final : public Counted<Platform::Binding> {
public:
  explicit FakeBinding(const ScriptPtr& script)
      : Counted(script), inputs(script->model.inputs.size()),
        outputs(script->model.outputs.size()), evaluation{
                                                   std::vector<FakeTensorView>(inputs.size()),
                                                   std::vector<FakeTensorView>(outputs.size())} {}

  ResultCode Bind(Side side, std::u16string_view name,
                  const std::shared_ptr<Platform::Tensor>& tensor) override {
    const bool isInput = side == Side::Input;
    return Call(
        *script, "Bind",
        [&] {
          const auto& features = isInput ? script->model.inputs : script->model.outputs;
          const auto feature = std::find_if(features.begin(), features.end(),
                                            [&](const FakeFeature& f) { return f.name == name; });
          if (feature == features.end()) throw std::invalid_argument("there is no such feature");
          (isInput ? inputs : outputs)[static_cast<std::size_t>(feature - features.begin())] =
              std::dynamic_pointer_cast<FakeTensor>(tensor);
        },
        [&] { return InBrackets(name); });
  }

  ResultCode Prepare() override {
    isPrepared = false;
    return Call(*script, "Prepare", [&] {
      if (!AllFit(inputs, script->model.inputs) || !AllFit(outputs, script->model.outputs))
        return ResultCodes::InvalidArgument;
      const ResultCode code = Run();
      if (Failed(code)) return code;
      for (const auto& tensors : {inputs, outputs}) {
        for (const auto& tensor : tensors)
          tensor->Clear();
      }
      isPrepared = true;
      return ResultCodes::Ok;
    });
  }

  ResultCode Evaluate() {
    if (!isPrepared) return ResultCodes::IllegalMethodCall;
    if (script->heldTensors != 0) return ResultCodes::Fail;
    const ResultCode code = Run();
    script->evaluations += Failed(code) ? 0 : 1;
    return code;
  }

private:
  using Tensors = std::vector<std::shared_ptr<FakeTensor>>;

  static bool AllFit(const Tensors& tensors, const std::vector<FakeFeature>& features) {
    return std::equal(tensors.begin(), tensors.end(), features.begin(),
                      [](const auto& tensor, const FakeFeature& feature) {
                        return tensor && tensor->Fits(feature);
                      });
  }

  /// An output's tensor that is an input's, too.
  bool IsState(const std::shared_ptr<FakeTensor>& tensor) const {
    return std::find(inputs.begin(), inputs.end(), tensor) != inputs.end();
  }

  ResultCode Run() {
    for (std::size_t i = 0; i < inputs.size(); ++i)
      evaluation.inputs[i] = inputs[i]->view;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      evaluation.outputs[i] = outputs[i]->view;
      if (IsState(outputs[i])) evaluation.outputs[i].data = outputs[i]->NextValues();
    }
    const auto& evaluate = script->model.evaluate;
    const ResultCode code = evaluate ? evaluate(evaluation) : ResultCodes::Ok;
    for (const auto& tensor : outputs)
      if (IsState(tensor) && !Failed(code)) tensor->TakeNextValues();
    return code;
  }

  Tensors inputs, outputs;
  FakeEvaluation evaluation;
  bool isPrepared = false;
};

class FakeSession final : public Counted<Platform::Session> {
public:
  using Counted::Counted;
  ResultCode Evaluate(Platform::Binding& binding, const char16_t* correlationId) override {
    return Call(
        *script, "Evaluate", [&] { return dynamic_cast<FakeBinding&>(binding).Evaluate(); },
        [&] { return InBrackets(correlationId); });
  }
};

}  // namespace

FakeModel MakeFakeAudioModel(std::int64_t windowLength, std::vector<float> classGains,
                             bool isSpectral) {
  FakeModel model;
  Shape window = {windowLength};
  if (isSpectral) window = {windowLength / 2 + 1, 2};
  Shape input = {-1, -1}, output = {-1, -1, -1};
  input.insert(input.end(), window.begin(), window.end());
  output.insert(output.end(), window.begin(), window.end());
  model.inputs = {{u"input", input}};
  model.outputs = {{u"output", output}};
  std::string names;
  for (std::size_t k = 0; k < classGains.size(); ++k)
    names += (k ? ",\"Class" : "\"Class") + std::to_string(k) + '"';
  names = '[' + names + ']';
  model.metadata = {{u"AudioClassNames", {names.begin(), names.end()}}};
  model.evaluate = [classGains = std::move(classGains)](const FakeEvaluation& evaluation) {
    const FakeTensorView& in = evaluation.inputs[0];
    const FakeTensorView& out = evaluation.outputs[0];
    const auto channels = static_cast<std::size_t>(in.shape[0]);
    const std::size_t samplesIn = in.count / channels;
    const std::size_t samplesOut = out.count / classGains.size() / channels;
    for (std::size_t i = 0; i < out.count; ++i) {
      const std::size_t row = i / samplesOut;
      out.Floats()[i] =
          classGains[row / channels] * in.Floats()[row % channels * samplesIn + i % samplesOut];
    }
    return ResultCodes::Ok;
  };
  return model;
}

void FakeRuntime::FailCall(std::size_t n, ResultCode code, const char* operation,
                           std::size_t times) {
  script->callsBeforeFailure = n - 1;
  script->callsToFail = times;
  script->failure = code;
  script->failingOperation = operation;
  script->hasFailed = false;
}

bool FakeRuntime::StopFailing() {
  script->callsToFail = 0;
  return std::exchange(script->hasFailed, false);
}

ResultCode FakeRuntime::LoadModel(const void*, std::uint32_t,
                                  std::shared_ptr<Platform::Model>& model) {
  return Make<FakeLoadedModel>(script, "LoadModel", model);
}

ResultCode FakeRuntime::CreateDevice(Platform::DeviceKind kind,
                                     std::shared_ptr<Platform::Device>& device) {
  return Call(
      *script, "CreateDevice", [&] { device = std::make_shared<FakeDevice>(script); },
      [&] { return '(' + std::to_string(static_cast<int>(kind)) + ')'; });
}

std::shared_ptr<Platform::Model> FakeRuntime::Load() {
  std::shared_ptr<Platform::Model> model;
  CheckResult(LoadModel("model", 5, model));
  return model;
}

ResultCode FakeRuntime::CreateSessionOptions(std::shared_ptr<Platform::SessionOptions>& options) {
  return Make<FakeOptions>(script, "CreateSessionOptions", options);
}

ResultCode FakeRuntime::CreateSession(const std::shared_ptr<Platform::Model>&,
                                      const std::shared_ptr<Platform::Device>&,
                                      const std::shared_ptr<Platform::SessionOptions>&,
                                      std::shared_ptr<Platform::Session>& session) {
  return Make<FakeSession>(script, "CreateSession", session);
}

ResultCode FakeRuntime::CreateBinding(const std::shared_ptr<Platform::Session>&,
                                      std::shared_ptr<Platform::Binding>& binding) {
  return Make<FakeBinding>(script, "CreateBinding", binding);
}

ResultCode FakeRuntime::CreateTensor(std::uint32_t kind, const Shape& shape,
                                     std::shared_ptr<Platform::Tensor>& tensor) {
  const auto numbers = [&] {
    std::string text = "(" + std::to_string(kind);
    for (std::size_t i = 0; i < shape.size(); ++i)
      text += (i ? "," : ":") + std::to_string(shape[i]);
    return text + ")";
  };
  return Call(
      *script, "CreateTensor", [&] { tensor = std::make_shared<FakeTensor>(script, kind, shape); },
      numbers);
}

}  // namespace TestSupport
