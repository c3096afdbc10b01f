// The step window by window and the adapted model by evaluations of several, on the same noise.

#include "adapt/adapt.h"
#include "failure/result_code.h"

#include "runtime/model_loading.h"
#include "runtime/tensor_factory.h"
#include "runtime/text.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

namespace Orvik::Tesmo::Tool {
namespace {

using Platform::Side;
constexpr std::int64_t channels = TrialSignal::channels, windows = TrialSignal::windows,
                       perEvaluation = TrialSignal::perEvaluation;

std::size_t Index(std::int64_t i) {
  return static_cast<std::size_t>(i);
}

/// One window in a tensor of some layout.
class WindowLayout {
public:
  WindowLayout(const Layout& layout, std::int64_t classCount, std::int64_t size) {
    for (const char letter : layout)
      shape.push_back(letter == 'F' ? size : letter == 'C' ? 2 : letter == 'K' ? classCount : 1);
    std::int64_t stride = 1;
    for (std::size_t i = layout.size(); i-- > 0; stride *= shape[i])
      (layout[i] == 'F'   ? valueStride
       : layout[i] == 'C' ? partStride
       : layout[i] == 'K' ? classStride
                          : ignored) = stride;
  }

  std::size_t Place(std::int64_t classIndex, std::int64_t value, std::int64_t part) const {
    return Index(classIndex * classStride + value * valueStride + part * partStride);
  }
  std::size_t Size() const {
    std::int64_t size = 1;
    for (const std::int64_t one : shape)
      size *= one;
    return Index(size);
  }

  Platform::Shape shape;

private:
  std::int64_t valueStride = 0, partStride = 0, classStride = 0, ignored = 0;
};

class StepRun {
public:
  StepRun(Platform::Runtime& runtime, const std::string& bytes, const Roles& roles)
      : roles(roles), in(roles.inputs[0].layout, 1, roles.inputs[0].size),
        out(roles.outputLayout, roles.classCount, roles.outputSize), run(runtime, bytes) {
    for (const SourceTensor& input : roles.inputs[0].tensors)
      inputs.push_back(run.Bind(Side::Input, input.name, in.shape));
    for (const SourceTensor& output : roles.outputs)
      outputs.push_back(run.Bind(Side::Output, output.name, out.shape));
    for (const StatePair& pair : roles.states) {
      Platform::Shape shape;
      for (const SourceDimension& dimension : pair.input.shape)
        shape.push_back(std::max<std::int64_t>(dimension.size, 1));
      run.BindState(pair.input.name, pair.output.name, pair.input.kind, shape);
    }
  }

  void Restart() { run.Restart(); }

  /// `window`: bins x 2, or samples. `result`: class k at k * classStride, likewise.
  void Process(const float* window, float* result, std::int64_t classStride) {
    const std::int64_t parts = IsSpectral(roles.result) ? 2 : 1;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      std::vector<float> values(in.Size());
      ForEachPart(roles.inputs[0].layout, i,
                  [&](std::int64_t bin, std::int64_t part, std::int64_t own) {
                    values[in.Place(0, bin, own)] = window[parts * bin + part];
                  });
      run.Set(inputs[i], values);
    }
    run.Evaluate();
    const std::size_t perClass = Has(roles.outputLayout, 'C') || parts == 1 ? 1 : 2;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      const std::vector<float> values = run.Get(outputs[i]);
      const std::int64_t inside = Has(roles.outputLayout, 'K') ? roles.classCount : 1;
      for (std::int64_t k = 0; k < inside; ++k) {
        float* const target = result + (static_cast<std::int64_t>(i / perClass) + k) * classStride;
        ForEachPart(roles.outputLayout, i % perClass,
                    [&](std::int64_t bin, std::int64_t part, std::int64_t own) {
                      target[parts * bin + part] = values[out.Place(k, bin, own)];
                    });
      }
    }
  }

private:
  /// Of the parts that the tensor with this number has: both, or the one of its number.
  void ForEachPart(const Layout& layout, std::size_t tensor, auto visit) const {
    for (std::int64_t bin = 0; bin < roles.inputs[0].size; ++bin) {
      if (Has(layout, 'C')) {
        visit(bin, 0, 0);
        visit(bin, 1, 1);
      } else {
        visit(bin, static_cast<std::int64_t>(tensor), 0);
      }
    }
  }

  const Roles& roles;
  WindowLayout in, out;
  ModelRun run;
  std::vector<std::size_t> inputs, outputs;
};

}  // namespace

ModelRun::ModelRun(Platform::Runtime& runtime, const std::string& bytes) : runtime(runtime) {
  const auto model = Dnn::LoadLearningModel(runtime, bytes.data(), bytes.size());
  session = Dnn::CreateSession(runtime, model, Dnn::CreateCpuDevice(runtime));
  binding = Dnn::CreateBinding(runtime, session);
}

std::size_t ModelRun::Bind(Platform::Side side, const std::string& name,
                           const Platform::Shape& shape, std::uint32_t kind) {
  Bound added{nullptr, Dnn::ElementCount(shape)};
  CheckResult(runtime.CreateTensor(kind, shape, added.tensor));
  Connect(side, name, added.tensor);
  bound.push_back(added);
  return bound.size() - 1;
}

void ModelRun::BindState(const std::string& input, const std::string& output, std::uint32_t kind,
                         const Platform::Shape& shape) {
  std::shared_ptr<Platform::Tensor> tensor;
  Dnn::ElementCount(shape);
  CheckResult(runtime.CreateTensor(kind, shape, tensor));
  Connect(Side::Input, input, tensor);
  Connect(Side::Output, output, tensor);
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

template <class Value>
std::vector<Value> ModelRun::Copy(std::size_t tensor) {
  void* data = nullptr;
  CheckResult(bound[tensor].tensor->Acquire(data));
  const auto* const values = static_cast<const Value*>(data);
  std::vector<Value> copy(values, values + bound[tensor].size);
  bound[tensor].tensor->Release();
  return copy;
}

std::vector<float> ModelRun::Get(std::size_t tensor) {
  return Copy<float>(tensor);
}

std::vector<std::int64_t> ModelRun::GetNumbers(std::size_t tensor) {
  return Copy<std::int64_t>(tensor);
}

void ModelRun::Connect(Platform::Side side, const std::string& name,
                       const std::shared_ptr<Platform::Tensor>& tensor) {
  CheckResult(binding->Bind(side, Dnn::Utf16FromUtf8(name), tensor));
}

TrialSignal::TrialSignal(std::int64_t values)
    : perWindow(values), values(Index(channels * windows * values)) {
  std::mt19937 generator(1);
  for (float& value : this->values)
    value = static_cast<float>(generator() % 16001) / 1000.0F - 8.0F;
}

std::vector<float> RunStep(Platform::Runtime& runtime, const std::string& bytes, const Roles& roles,
                           const TrialSignal& signal) {
  StepRun run(runtime, bytes, roles);
  std::vector<float> result(Index(roles.classCount) * signal.values.size());
  for (std::int64_t c = 0; c < channels; ++c) {
    run.Restart();
    for (std::int64_t t = 0; t < windows; ++t) {
      const std::int64_t place = (c * windows + t) * signal.perWindow;
      run.Process(signal.values.data() + place, result.data() + place,
                  channels * windows * signal.perWindow);
    }
  }
  return result;
}

std::vector<float> RunAdapted(Platform::Runtime& runtime, const std::string& bytes,
                              const Plan& step, const Loops& loops, const TrialSignal& signal) {
  const Roles& roles = step.parts[0];
  const std::int64_t window = signal.perWindow, lookahead = step.lookahead;
  ModelRun run(runtime, bytes);
  Platform::Shape in = {channels, perEvaluation + lookahead, roles.inputs[0].size};
  Platform::Shape out = {roles.classCount, channels, perEvaluation, roles.outputSize};
  if (IsSpectral(roles.result)) {
    in.push_back(2);
    out.push_back(2);
  }
  const auto input = run.Bind(Side::Input, "input", in);
  const auto output = run.Bind(Side::Output, "output", out);
  for (const StatePair& pair : roles.states) {
    Platform::Shape shape = AdaptedStateShape(pair, loops);
    std::ranges::replace(shape, 0, channels);
    run.BindState("state/" + pair.input.name, "newState/" + pair.output.name, pair.input.kind,
                  shape);
  }
  run.Restart();
  std::vector<float> result(Index(roles.classCount) * signal.values.size());
  for (std::int64_t start = 0; start < windows; start += perEvaluation) {
    std::vector<float> values;
    for (std::int64_t c = 0; c < channels; ++c)
      for (std::int64_t t = start - lookahead; t < start + perEvaluation; ++t)
        for (std::int64_t i = 0; i < window; ++i)
          values.push_back(t < 0 ? 0.0F : signal.values[Index((c * windows + t) * window + i)]);
    run.Set(input, values);
    run.Evaluate();
    const std::vector<float> part = run.Get(output);
    for (std::int64_t i = 0; i < roles.classCount * channels; ++i)
      std::copy_n(part.begin() + i * perEvaluation * window, perEvaluation * window,
                  result.begin() + (i * windows + start) * window);
  }
  return result;
}

Comparison Compare(const std::vector<float>& step, const std::vector<float>& adapted) {
  Comparison comparison;
  for (std::size_t i = 0; i < step.size(); ++i) {
    const double difference = std::abs(double{step[i]} - double{adapted[i]});
    if (!std::isfinite(difference)) comparison.difference = std::numeric_limits<double>::infinity();
    comparison.difference = std::max(comparison.difference, difference);
    comparison.peak = std::max(comparison.peak, std::abs(double{step[i]}));
  }
  return comparison;
}

}  // namespace Orvik::Tesmo::Tool
