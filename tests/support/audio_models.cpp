#include "support/audio_models.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace TestSupport {
namespace {

using Options = AudioModelOptions;
using Update = StateOptions::Update;

/// Adds nodes to a model in a row: each has a fresh name for its result.
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
  const std::string wide = chain.Cast(value, Element::Double);
  const std::string one = chain.Cast(chain.One(), Element::Double);
  return chain.Cast(chain.Node("Add", {wide, one}), element);
}

/// Declares a state as the next input and output, updates it and returns the name of the old
/// values.
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

/// The last dimensions of a tensor on samples, or all of one on spectra, which has one more.
Dimensions FreeShape(const Dimensions& onSpectra, std::size_t rank) {
  if (rank == onSpectra.size()) return onSpectra;
  return {onSpectra.end() - 1 - static_cast<std::ptrdiff_t>(rank), onSpectra.end() - 1};
}

}  // namespace

std::string MakeAudioModel(const Options& options) {
  ModelBuilder model;
  Chain chain(model);
  const Dimensions input = {"C", "T", options.features, 2};
  const Dimensions output = {"K", "C", "S",
                             options.outputFeatures ? options.outputFeatures : options.features, 2};
  model.Input(options.inputName, Element::Float,
              options.inputShape.value_or(FreeShape(input, options.inputRank)));
  model.Output("output", Element::Float,
               options.outputShape.value_or(FreeShape(output, options.outputRank)));

  std::string audio = ToOutput(chain, options, AtFullRank(chain, options));
  std::size_t stateIndex = 1;

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
  if (options.failsAtOneWindow) {
    const std::string second =
        chain.Node("Gather", {options.inputName, chain.Int64s({1})}, {{"axis", 1}});
    const std::string mean = chain.Node("ReduceMean", {second}, {{"keepdims", 0}});
    audio = chain.Node("Add", {audio, chain.Node("Mul", {mean, chain.Floats({}, {0})})});
  }
  model.Node("Identity", {audio}, {"output"});
  for (const auto& [key, value] : options.metadata)
    model.Metadata(key, value);
  return model.Build();
}

std::string RecipeModel(const std::string& name) {
  std::ifstream file(KALVRIN_MODELS "/" + name + ".onnx", std::ios::binary);
  if (!file) throw std::runtime_error("there is no model " + name);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace TestSupport
