#include "support/audio_models.h"

#include <cmath>

namespace TestSupport {
namespace {

using Options = AudioModelOptions;
using Update = StateOptions::Update;

/// Adds nodes to a model in a row: each gives a fresh name to its result.
class Chain {
public:
  explicit Chain(ModelBuilder& model) : model(model) {}

  std::string Node(const std::string& operation, const std::vector<std::string>& inputs,
                   const std::vector<Attribute>& attributes = {}) {
    std::string result = Fresh();
    model.Node(operation, inputs, {result}, attributes);
    return result;
  }
  std::string Int64s(const std::vector<std::int64_t>& values) {
    std::string name = Fresh();
    model.Int64s(name, {static_cast<std::int64_t>(values.size())}, values);
    return name;
  }
  std::string One() {
    std::string name = Fresh();
    model.Int64s(name, {}, {1});
    return name;
  }
  std::string Floats(const std::vector<std::int64_t>& shape, const std::vector<float>& values) {
    std::string name = Fresh();
    model.Floats(name, shape, values);
    return name;
  }
  std::string Cast(const std::string& value, Element element) {
    return Node("Cast", {value}, {{"to", static_cast<int>(element)}});
  }
  std::string Unsqueeze(const std::string& value, std::int64_t axis) {
    return Node("Unsqueeze", {value, Int64s({axis})});
  }
  std::string Squeeze(const std::string& value, std::int64_t axis) {
    return Node("Squeeze", {value, Int64s({axis})});
  }

private:
  std::string Fresh() { return "value" + std::to_string(++count); }

  ModelBuilder& model;
  int count = 0;
};

std::string Counted(Chain& chain, const std::string& value, Element element) {
  if (element == Element::Bool) return chain.Node("Not", {value});
  const std::string wide = chain.Cast(value, Element::Double);
  const std::string one = chain.Cast(chain.One(), Element::Double);
  return chain.Cast(chain.Node("Add", {wide, one}), element);
}

/// Declares a state as the next input and output, updates it and gives the name of the old values.
std::string AddState(ModelBuilder& model, Chain& chain, const StateOptions& state,
                     std::size_t index) {
  std::string input = "state" + std::to_string(index);
  const std::string output =
      state.outputName.empty() ? "newState" + std::to_string(index) : state.outputName;
  model.Input(input, state.element, state.shape).Output(output, state.element, state.shape);
  if (state.update == Update::Count)
    model.Node("Identity", {Counted(chain, input, state.element)}, {output});
  else if (state.update == Update::Keep)
    model.Node("Identity", {input}, {output});
  return input;
}

/// Small enough for a stable recurrence.
std::vector<float> GruWeights(std::int64_t hidden, std::int64_t rows, double step) {
  std::vector<float> values(static_cast<std::size_t>(rows * hidden));
  for (std::size_t i = 0; i < values.size(); ++i)
    values[i] = static_cast<float>(std::sin(step * static_cast<double>(i + 1)) /
                                   std::sqrt(static_cast<double>(hidden)));
  return values;
}

std::string ThroughGru(ModelBuilder& model, Chain& chain, const Options& options,
                       const std::string& audio) {
  const std::int64_t size = options.features;
  model.Input("hidden", Element::Float, {1, "C", size});
  model.Output("newHidden", Element::Float, {1, "C", size});
  const std::string windowsFirst =
      chain.Node("Transpose", {audio}, {{"perm", std::vector<std::int64_t>{1, 0, 2}}});
  model.Node("GRU",
             {windowsFirst, chain.Floats({1, 3 * size, size}, GruWeights(size, 3 * size, 1.3)),
              chain.Floats({1, 3 * size, size}, GruWeights(size, 3 * size, 2.1)),
              chain.Floats({1, 6 * size}, GruWeights(size, 6, 0.7)), "", "hidden"},
             {"gruOutput", "newHidden"}, {{"hidden_size", static_cast<int>(size)}});
  return chain.Node("Transpose", {chain.Squeeze("gruOutput", 1)},
                    {{"perm", std::vector<std::int64_t>{1, 0, 2}}});
}

/// The audio as [C, T, W] or [C, T, F, 2], whatever the rank of the input.
std::string AtFullRank(Chain& chain, const Options& options) {
  std::string audio = options.inputName;
  for (std::size_t rank = options.inputRank; rank < 3; ++rank)
    audio = chain.Unsqueeze(audio, 0);
  return audio;
}

/// [C, T, ...] to the shape of the output, by lookahead, features, components, gains and rank.
std::string ToOutput(Chain& chain, const Options& options, std::string audio) {
  if (options.lookahead != 0)
    audio = chain.Node(
        "Slice", {audio, chain.Int64s({0}), chain.Int64s({-options.lookahead}), chain.Int64s({1})});
  if (options.outputFeatures != 0) {
    std::vector<std::int64_t> sources;
    for (std::int64_t i = 0; i < options.outputFeatures; ++i)
      sources.push_back(i % options.features);
    audio = chain.Node("Gather", {audio, chain.Int64s(sources)}, {{"axis", 2}});
  }
  const bool hasComponents = options.inputRank == 4;
  const bool givesComponents = options.outputRank == 5;
  if (hasComponents && !givesComponents) {
    audio = chain.Squeeze(chain.Node("Gather", {audio, chain.Int64s({0})}, {{"axis", 3}}), 3);
  } else if (givesComponents && !hasComponents) {
    const std::string single = chain.Unsqueeze(audio, 3);
    audio = chain.Node("Concat", {single, single}, {{"axis", 3}});
  }
  std::vector<std::int64_t> gainShape(givesComponents ? 5 : 4, 1);
  gainShape[0] = static_cast<std::int64_t>(options.classGains.size());
  audio =
      chain.Node("Mul", {chain.Unsqueeze(audio, 0), chain.Floats(gainShape, options.classGains)});
  for (std::size_t rank = options.outputRank; rank < 4; ++rank)
    audio = chain.Squeeze(audio, 0);
  return audio;
}

Dimensions FreeInputShape(const Options& options) {
  Dimensions full = {"C", "T", options.features, 2};
  if (options.inputRank == 4) return full;
  return Dimensions(full.begin() + 3 - static_cast<std::ptrdiff_t>(options.inputRank),
                    full.begin() + 3);
}

Dimensions FreeOutputShape(const Options& options) {
  const std::int64_t size = options.outputFeatures ? options.outputFeatures : options.features;
  Dimensions full = {"K", "C", "S", size, 2};
  if (options.outputRank == 5) return full;
  return Dimensions(full.begin() + 4 - static_cast<std::ptrdiff_t>(options.outputRank),
                    full.begin() + 4);
}

}  // namespace

std::string MakeAudioModel(const Options& options) {
  ModelBuilder model;
  Chain chain(model);
  model.Input(options.inputName, Element::Float,
              options.inputShape.value_or(FreeInputShape(options)));
  model.Output("output", Element::Float, options.outputShape.value_or(FreeOutputShape(options)));

  std::string audio = AtFullRank(chain, options);
  std::size_t stateIndex = 1;
  if (options.isRecurrent) {
    audio = ThroughGru(model, chain, options, audio);
    ++stateIndex;
  }
  audio = ToOutput(chain, options, audio);

  for (const StateOptions& state : options.states) {
    const std::string old = AddState(model, chain, state, stateIndex++);
    if (!state.isHeard) continue;
    const std::string numbers = chain.Cast(old, Element::Float);
    const std::string mean = chain.Node("ReduceMean", {numbers}, {{"keepdims", 0}});
    audio = chain.Node("Add", {audio, mean});
  }
  if (options.failsFromEvaluation) {
    const StateOptions counter = {.element = Element::Int64, .shape = {}};
    const std::string index = AddState(model, chain, counter, stateIndex++);
    const std::string zeros =
        chain.Floats({*options.failsFromEvaluation},
                     std::vector<float>(static_cast<std::size_t>(*options.failsFromEvaluation)));
    audio = chain.Node("Add", {audio, chain.Node("Gather", {zeros, index})});
  }
  if (options.failsOnLevel) {
    const std::string level = chain.Node("ReduceMax", {options.inputName}, {{"keepdims", 0}});
    const std::string index = chain.Cast(level, Element::Int64);
    audio = chain.Node("Add", {audio, chain.Node("Gather", {chain.Floats({1}, {0}), index})});
  }
  model.Node("Identity", {audio}, {"output"});
  for (const auto& [key, value] : options.metadata)
    model.Metadata(key, value);
  return model.Build();
}

}  // namespace TestSupport
