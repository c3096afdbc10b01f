#include "adapt/comparison.h"

#include "adapt/model_run.h"

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
  WindowLayout(const Layout& layout, std::int64_t classCount, std::int64_t bins) {
    for (const char letter : layout)
      shape.push_back(letter == 'F' ? bins : letter == 'C' ? 2 : letter == 'K' ? classCount : 1);
    std::int64_t stride = 1;
    for (std::size_t i = layout.size(); i-- > 0; stride *= shape[i])
      (layout[i] == 'F'   ? binStride
       : layout[i] == 'C' ? partStride
       : layout[i] == 'K' ? classStride
                          : ignored) = stride;
  }

  std::size_t Place(std::int64_t classIndex, std::int64_t bin, std::int64_t part) const {
    return Index(classIndex * classStride + bin * binStride + part * partStride);
  }
  std::size_t Size() const {
    std::int64_t size = 1;
    for (const std::int64_t one : shape)
      size *= one;
    return Index(size);
  }

  Platform::Shape shape;

private:
  std::int64_t binStride = 0, partStride = 0, classStride = 0, ignored = 0;
};

class OriginalRun {
public:
  OriginalRun(Platform::Runtime& runtime, const std::string& bytes, const Roles& roles)
      : roles(roles), in(roles.inputLayout, 1, roles.bins),
        out(roles.outputLayout, roles.classCount, roles.bins), run(runtime, bytes) {
    for (const SourceTensor& input : roles.inputs)
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

  /// `window`: bins x 2. `result`: class k at k * classStride, likewise.
  void Process(const float* window, float* result, std::int64_t classStride) {
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      std::vector<float> values(in.Size());
      ForEachPart(roles.inputLayout, i, [&](std::int64_t bin, std::int64_t part, std::int64_t own) {
        values[in.Place(0, bin, own)] = window[2 * bin + part];
      });
      run.Set(inputs[i], values);
    }
    run.Evaluate();
    const std::size_t perClass = Has(roles.outputLayout, 'C') ? 1 : 2;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      const std::vector<float> values = run.Get(outputs[i]);
      const std::int64_t inside = Has(roles.outputLayout, 'K') ? roles.classCount : 1;
      for (std::int64_t k = 0; k < inside; ++k) {
        float* const target = result + (static_cast<std::int64_t>(i / perClass) + k) * classStride;
        ForEachPart(roles.outputLayout, i % perClass,
                    [&](std::int64_t bin, std::int64_t part, std::int64_t own) {
                      target[2 * bin + part] = values[out.Place(k, bin, own)];
                    });
      }
    }
  }

private:
  /// Of the parts that the tensor with this number has: both, or the one of its number.
  void ForEachPart(const Layout& layout, std::size_t tensor, auto visit) const {
    for (std::int64_t bin = 0; bin < roles.bins; ++bin) {
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

TrialSignal::TrialSignal(std::int64_t bins)
    : bins(bins), values(Index(channels * windows * bins * 2)) {
  std::mt19937 generator(1);
  for (float& value : values)
    value = static_cast<float>(generator() % 16001) / 1000.0F - 8.0F;
}

std::vector<float> RunOriginal(Platform::Runtime& runtime, const std::string& bytes,
                               const Roles& roles, const TrialSignal& signal) {
  OriginalRun run(runtime, bytes, roles);
  const std::int64_t window = 2 * roles.bins;
  std::vector<float> result(Index(roles.classCount * channels * windows * window));
  for (std::int64_t c = 0; c < channels; ++c) {
    run.Restart();
    for (std::int64_t t = 0; t < windows; ++t) {
      const std::int64_t place = (c * windows + t) * window;
      run.Process(signal.values.data() + place, result.data() + place, channels * windows * window);
    }
  }
  return result;
}

std::vector<float> RunAdapted(Platform::Runtime& runtime, const std::string& bytes,
                              const Roles& roles, const Loops& loops, std::int64_t lookahead,
                              const TrialSignal& signal) {
  const std::int64_t window = 2 * roles.bins;
  ModelRun run(runtime, bytes);
  const auto input =
      run.Bind(Side::Input, "input", {channels, perEvaluation + lookahead, roles.bins, 2});
  const auto output =
      run.Bind(Side::Output, "output", {roles.classCount, channels, perEvaluation, roles.bins, 2});
  for (const StatePair& pair : roles.states) {
    Platform::Shape shape = AdaptedStateShape(pair, loops);
    std::ranges::replace(shape, 0, channels);
    run.BindState("state/" + pair.input.name, "newState/" + pair.output.name, pair.input.kind,
                  shape);
  }
  run.Restart();
  std::vector<float> result(Index(roles.classCount * channels * windows * window));
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

Comparison Compare(const std::vector<float>& original, const std::vector<float>& adapted) {
  Comparison comparison;
  for (std::size_t i = 0; i < original.size(); ++i) {
    const double difference = std::abs(double{original[i]} - double{adapted[i]});
    if (!std::isfinite(difference)) comparison.difference = std::numeric_limits<double>::infinity();
    comparison.difference = std::max(comparison.difference, difference);
    comparison.peak = std::max(comparison.peak, std::abs(double{original[i]}));
  }
  return comparison;
}

}  // namespace Orvik::Tesmo::Tool
