#include "support/fake_platform.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace TestSupport {

using Platform::Shape;
using Platform::Side;

struct FakeRuntime::Script {
  FakeModel model;
  std::vector<std::string> calls;
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
  ResultCode Enter(const char* operation) {
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
};

namespace {

using Script = FakeRuntime::Script;
using ScriptPtr = std::shared_ptr<Script>;

/// Runs `work` behind the gate of the script, and turns what it throws into a code, as the boundary
/// asks for. `detail` gives what the record has in brackets.
template <class Detail, class Work>
ResultCode Call(Script& script, const char* operation, Detail detail, Work work) {
  try {
    if (script.recording) {
      const std::string brackets = detail();
      script.calls.push_back(brackets.empty() ? operation : operation + ("(" + brackets + ")"));
    }
    if (const ResultCode code = script.Enter(operation); Failed(code)) return code;
    return work();
  } catch (...) {
    return ResultCodeForCurrentException();
  }
}

const auto NoDetail = [] { return std::string(); };

template <class Work>
ResultCode Call(Script& script, const char* operation, Work work) {
  return Call(
      script, operation, [] { return std::string(); }, std::move(work));
}

/// An operation that gives a value.
template <class Place, class Value>
ResultCode Answer(Script& script, const char* operation, Place& place, const Value& value) {
  return Call(script, operation, [&] {
    place = value;
    return ResultCodes::Ok;
  });
}

auto Detail(std::uint32_t number) {
  return [number] { return std::to_string(number); };
}

std::string Narrow(std::u16string_view text) {
  return {text.begin(), text.end()};
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

/// An operation that makes an object.
template <class Object, class Place, class Detail, class... Arguments>
ResultCode Make(const ScriptPtr& script, const char* operation, Detail detail, Place& place,
                const Arguments&... arguments) {
  return Call(*script, operation, detail, [&] {
    place = std::make_shared<Object>(script, arguments...);
    return ResultCodes::Ok;
  });
}

class FakeDescriptor final : public Counted<Platform::FeatureDescriptor> {
public:
  FakeDescriptor(const ScriptPtr& script, const FakeFeature& feature)
      : Counted(script), feature(feature) {}
  ResultCode GetName(std::u16string& name) const override {
    return Answer(*script, "GetName", name, feature.name);
  }
  ResultCode GetKind(Platform::FeatureKind& kind) const override {
    return Answer(*script, "GetKind", kind, feature.kind);
  }
  ResultCode GetTensorKind(std::uint32_t& kind) const override {
    return Call(*script, "GetTensorKind", [&] {
      kind = feature.tensorKind;
      return IsTensor();
    });
  }
  ResultCode GetShape(Shape& shape) const override {
    return Call(*script, "GetShape", [&] {
      shape = feature.shape;
      return IsTensor();
    });
  }

private:
  ResultCode IsTensor() const {
    return feature.kind == Platform::FeatureKind::Tensor ? ResultCodes::Ok
                                                         : ResultCodes::NoInterface;
  }
  const FakeFeature& feature;
};

class FakeList final : public Counted<Platform::FeatureList> {
public:
  FakeList(const ScriptPtr& script, const std::vector<FakeFeature>& features)
      : Counted(script), features(features) {}
  ResultCode GetSize(std::uint32_t& size) const override {
    return Answer(*script, "GetSize", size, static_cast<std::uint32_t>(features.size()));
  }
  ResultCode GetAt(std::uint32_t index,
                   std::shared_ptr<Platform::FeatureDescriptor>& feature) const override {
    return Call(*script, "GetAt", Detail(index), [&] {
      if (index >= features.size()) return ResultCodes::OutOfBounds;
      feature = std::make_shared<FakeDescriptor>(script, features[index]);
      return ResultCodes::Ok;
    });
  }

private:
  const std::vector<FakeFeature>& features;
};

class FakeIterator final : public Counted<Platform::MetadataIterator> {
public:
  using Counted::Counted;
  ResultCode HasCurrent(bool& has) const override {
    return Answer(*script, "HasCurrent", has, position < script->model.metadata.size());
  }
  ResultCode Current(std::u16string& key, std::u16string& value) const override {
    return Call(*script, "Current", [&] {
      if (position >= script->model.metadata.size()) return ResultCodes::OutOfBounds;
      std::tie(key, value) = script->model.metadata[position];
      return ResultCodes::Ok;
    });
  }
  ResultCode MoveNext() override { return Answer(*script, "MoveNext", position, position + 1); }

private:
  std::size_t position = 0;
};

class FakeMetadata final : public Counted<Platform::MetadataMap> {
public:
  using Counted::Counted;
  ResultCode Lookup(std::u16string_view key, std::u16string& value) const override {
    return Call(
        *script, "Lookup", [&] { return Narrow(key); },
        [&] {
          for (const auto& [entryKey, entryValue] : script->model.metadata) {
            if (entryKey == key) {
              value = entryValue;
              return ResultCodes::Ok;
            }
          }
          return ResultCodes::OutOfBounds;
        });
  }
  ResultCode First(std::shared_ptr<Platform::MetadataIterator>& iterator) const override {
    return Make<FakeIterator>(script, "First", NoDetail, iterator);
  }
};

class FakeLoadedModel final : public Counted<Platform::Model> {
public:
  using Counted::Counted;
  ResultCode GetInputFeatures(std::shared_ptr<Platform::FeatureList>& features) const override {
    return Make<FakeList>(script, "GetInputFeatures", NoDetail, features, script->model.inputs);
  }
  ResultCode GetOutputFeatures(std::shared_ptr<Platform::FeatureList>& features) const override {
    return Make<FakeList>(script, "GetOutputFeatures", NoDetail, features, script->model.outputs);
  }
  ResultCode GetMetadata(std::shared_ptr<Platform::MetadataMap>& metadata) const override {
    return Make<FakeMetadata>(script, "GetMetadata", NoDetail, metadata);
  }
};

class FakeDevice final : public Counted<Platform::Device> {
public:
  using Counted::Counted;
};

class FakeOptions final : public Counted<Platform::SessionOptions> {
public:
  using Counted::Counted;
  ResultCode SetBatchSizeOverride(std::uint32_t size) override {
    return Call(*script, "SetBatchSizeOverride", Detail(size), [] { return ResultCodes::Ok; });
  }
  ResultCode SetIntraOpNumThreadsOverride(std::uint32_t threads) override {
    return Call(*script, "SetIntraOpNumThreadsOverride", Detail(threads),
                [] { return ResultCodes::Ok; });
  }
};

std::size_t ElementBytes(std::uint32_t kind) {
  namespace Kind = Platform::TensorKind;
  switch (kind) {
  case Kind::UInt8:
  case Kind::Int8:
  case Kind::Boolean:
    return 1;
  case Kind::UInt16:
  case Kind::Int16:
  case Kind::Float16:
    return 2;
  case Kind::Int64:
  case Kind::UInt64:
  case Kind::Double:
    return 8;
  default:
    return 4;
  }
}

class FakeTensor final : public Counted<Platform::Tensor> {
public:
  FakeTensor(const ScriptPtr& script, std::uint32_t kind, const Shape& shape)
      : Counted(script), kind(kind), view{shape} {
    view.count = 1;
    for (std::int64_t dimension : shape)
      view.count *= static_cast<std::size_t>(dimension);
    if (kind == Platform::TensorKind::String) {
      strings.resize(view.count);
      view.data = strings.data();
    } else {
      elements.resize((view.count * ElementBytes(kind) + 7) / 8);
      view.data = elements.data();
    }
  }
  ResultCode Acquire(void*& data) override {
    return Call(*script, "Acquire", [&] {
      if (kind == Platform::TensorKind::String) return ResultCodes::NoInterface;
      ++script->heldTensors;
      data = view.data;
      return ResultCodes::Ok;
    });
  }
  void Release() override {
    --script->heldTensors;
    if (script->recording) script->calls.emplace_back("Release");
  }
  void Clear() noexcept {
    std::fill(strings.begin(), strings.end(), std::u16string());
    std::fill(elements.begin(), elements.end(), 0);
  }
  void Swap(FakeTensor& other) noexcept {
    strings.swap(other.strings);
    elements.swap(other.elements);
    std::swap(view.data, other.view.data);
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
  std::vector<std::uint64_t> elements;
  std::vector<std::u16string> strings;
};

class FakeBinding final : public Counted<Platform::Binding> {
public:
  explicit FakeBinding(const ScriptPtr& script)
      : Counted(script), inputs(script->model.inputs.size()),
        outputs(script->model.outputs.size()) {}

  ResultCode Bind(Side side, std::u16string_view name,
                  const std::shared_ptr<Platform::Tensor>& tensor) override {
    const bool isInput = side == Side::Input;
    const auto detail = [&] { return (isInput ? "in " : "out ") + Narrow(name); };
    return Call(*script, "Bind", detail, [&] {
      const auto& features = isInput ? script->model.inputs : script->model.outputs;
      const auto feature = std::find_if(features.begin(), features.end(),
                                        [&](const FakeFeature& f) { return f.name == name; });
      if (feature == features.end()) return ResultCodes::InvalidArgument;
      (isInput ? inputs : outputs)[static_cast<std::size_t>(feature - features.begin())] =
          std::dynamic_pointer_cast<FakeTensor>(tensor);
      return ResultCodes::Ok;
    });
  }

  ResultCode Prepare() override {
    isPrepared = false;
    return Call(*script, "Prepare", [&] {
      if (!AllFit(inputs, script->model.inputs) || !AllFit(outputs, script->model.outputs))
        return ResultCodes::InvalidArgument;
      MakeEvaluation();
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

  /// A state's output gets storage of its own, which becomes the state's when the model has run.
  void MakeEvaluation() {
    nextStates.assign(outputs.size(), nullptr);
    evaluation.inputs.resize(inputs.size());
    evaluation.outputs.resize(outputs.size());
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      if (std::find(inputs.begin(), inputs.end(), outputs[i]) != inputs.end())
        nextStates[i] =
            std::make_shared<FakeTensor>(script, outputs[i]->kind, outputs[i]->view.shape);
    }
    for (std::size_t i = 0; i < inputs.size(); ++i)
      evaluation.inputs[i].shape = inputs[i]->view.shape;
    for (std::size_t i = 0; i < outputs.size(); ++i)
      evaluation.outputs[i].shape = outputs[i]->view.shape;
  }

  ResultCode Run() {
    const auto show = [](FakeTensorView& view, const FakeTensor& tensor) {
      view.data = tensor.view.data;
      view.count = tensor.view.count;
    };
    for (std::size_t i = 0; i < inputs.size(); ++i)
      show(evaluation.inputs[i], *inputs[i]);
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      if (nextStates[i]) nextStates[i]->Clear();
      show(evaluation.outputs[i], nextStates[i] ? *nextStates[i] : *outputs[i]);
    }
    const auto& evaluate = script->model.evaluate;
    const ResultCode code = evaluate ? evaluate(evaluation) : ResultCodes::Ok;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      if (nextStates[i] && !Failed(code)) outputs[i]->Swap(*nextStates[i]);
    }
    return code;
  }

  Tensors inputs, outputs;
  Tensors nextStates;  ///< by output; null where it is no state
  FakeEvaluation evaluation;
  bool isPrepared = false;
};

class FakeSession final : public Counted<Platform::Session> {
public:
  using Counted::Counted;
  ResultCode Evaluate(Platform::Binding& binding, const char16_t* correlationId) override {
    return Call(
        *script, "Evaluate", [&] { return Narrow(correlationId); },
        [&] { return dynamic_cast<FakeBinding&>(binding).Evaluate(); });
  }
};

}  // namespace

FakeModel MakeFakeSampleModel(std::int64_t windowLength, std::vector<float> classGains) {
  FakeModel model;
  model.inputs = {{u"input", {-1, -1, windowLength}}};
  model.outputs = {{u"output", {-1, -1, -1, windowLength}}};
  std::u16string names;
  for (std::size_t k = 0; k < classGains.size(); ++k)
    names +=
        (k ? u",\"Class" : u"\"Class") + std::u16string(1, static_cast<char16_t>(u'0' + k)) + u"\"";
  model.metadata = {{u"AudioClassNames", u"[" + names + u"]"}};
  model.evaluate = [classGains = std::move(classGains)](const FakeEvaluation& evaluation) {
    const FakeTensorView& in = evaluation.inputs[0];
    const FakeTensorView& out = evaluation.outputs[0];
    const auto inputChannel = static_cast<std::size_t>(in.shape[1] * in.shape[2]);
    const auto outputChannel = static_cast<std::size_t>(out.shape[2] * out.shape[3]);
    const auto channels = static_cast<std::size_t>(in.shape[0]);
    for (std::size_t i = 0; i < out.count; ++i) {
      const std::size_t channel = i / outputChannel % channels;
      const float sample = in.Floats()[channel * inputChannel + i % outputChannel];
      out.Floats()[i] = classGains[i / (outputChannel * channels)] * sample;
    }
    return ResultCodes::Ok;
  };
  return model;
}

FakeRuntime::FakeRuntime(FakeModel model) : script(std::make_shared<Script>()) {
  script->model = std::move(model);
}
FakeRuntime::~FakeRuntime() = default;

const std::vector<std::string>& FakeRuntime::GetCalls() const {
  return script->calls;
}
void FakeRuntime::ClearCalls() {
  script->calls.clear();
}
void FakeRuntime::SetRecording(bool recording) {
  script->recording = recording;
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

std::int64_t FakeRuntime::GetLiveObjects() const {
  return script->liveObjects;
}
std::int64_t FakeRuntime::GetHeldTensors() const {
  return script->heldTensors;
}
std::int64_t FakeRuntime::GetEvaluationCount() const {
  return script->evaluations;
}

ResultCode FakeRuntime::LoadModel(const void*, std::uint32_t size,
                                  std::shared_ptr<Platform::Model>& model) {
  return Call(*script, "LoadModel", Detail(size), [&] {
    if (size == 0) return ResultCodes::InvalidArgument;
    model = std::make_shared<FakeLoadedModel>(script);
    return ResultCodes::Ok;
  });
}

ResultCode FakeRuntime::CreateDevice(Platform::DeviceKind kind,
                                     std::shared_ptr<Platform::Device>& device) {
  return Make<FakeDevice>(script, "CreateDevice", Detail(static_cast<std::uint32_t>(kind)), device);
}

ResultCode FakeRuntime::CreateSessionOptions(std::shared_ptr<Platform::SessionOptions>& options) {
  return Make<FakeOptions>(script, "CreateSessionOptions", NoDetail, options);
}

ResultCode FakeRuntime::CreateSession(const std::shared_ptr<Platform::Model>&,
                                      const std::shared_ptr<Platform::Device>&,
                                      const std::shared_ptr<Platform::SessionOptions>&,
                                      std::shared_ptr<Platform::Session>& session) {
  return Make<FakeSession>(script, "CreateSession", NoDetail, session);
}

ResultCode FakeRuntime::CreateBinding(const std::shared_ptr<Platform::Session>&,
                                      std::shared_ptr<Platform::Binding>& binding) {
  return Make<FakeBinding>(script, "CreateBinding", NoDetail, binding);
}

ResultCode FakeRuntime::CreateTensor(std::uint32_t kind, const Shape& shape,
                                     std::shared_ptr<Platform::Tensor>& tensor) {
  const auto detail = [&] {
    std::string text = std::to_string(kind);
    for (std::size_t i = 0; i < shape.size(); ++i)
      text += (i ? "," : ":") + std::to_string(shape[i]);
    return text;
  };
  return Call(*script, "CreateTensor", detail, [&] {
    if (std::any_of(shape.begin(), shape.end(), [](std::int64_t d) { return d < 0; }))
      return ResultCodes::InvalidArgument;
    tensor = std::make_shared<FakeTensor>(script, kind, shape);
    return ResultCodes::Ok;
  });
}

}  // namespace TestSupport
