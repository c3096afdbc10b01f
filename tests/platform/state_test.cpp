#include "platform/rig.h"
#include "support/model_builder.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

// Recurrent states in graphs where the order of reading the old and writing the new values shows.

namespace {

using namespace TestSupport;

using Values = std::vector<double>;

constexpr std::size_t valueCount = 4;  // of every tensor

struct Operation {
  const char* name;
  double (*apply)(double a, double b);
  bool isReversed = false;
};

/// The output has the name of its first operand, so that no node makes it.
const Operation passThrough = {"", [](double a, double) { return a; }};
const Operation identity = {"Identity", [](double a, double) { return a; }};
const Operation reversed = {"Gather", [](double a, double) { return a; }, true};
const Operation operations[] = {
    {"Mean", [](double a, double b) { return (a + b) / 2; }},
    {"Mul", [](double a, double b) { return a * b; }},
    {"Max", [](double a, double b) { return std::max(a, b); }},
    identity,
    reversed,
};

struct Update {
  const Operation& operation;
  std::size_t a, b = 0;
};

/// By the number of the output: n0, n1, ... are made from the inputs s0, s1, ... All but the last
/// are the new values of states; the last is an output, and its number that of an input. All values
/// stay within -1 and 1.
struct Graph {
  const char* name;
  std::vector<Update> updates;
};

/// An input is passed through to one output at most, as no two outputs may have one name.
Graph RandomGraph(std::mt19937_64& random) {
  const std::size_t count = 2 + random() % 4;
  std::vector<bool> isPassed(count);
  Graph graph = {"random", {}};
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t a = random() % count;
    if (random() % 4 == 0 && !isPassed[a]) {
      isPassed[a] = true;
      graph.updates.push_back({passThrough, a});
    } else {
      graph.updates.push_back({operations[random() % std::size(operations)], a, random() % count});
    }
  }
  return graph;
}

std::string InputName(std::size_t number) {
  return "s" + std::to_string(number);
}

std::string OutputName(const Graph& graph, std::size_t number) {
  const Update& update = graph.updates[number];
  return &update.operation == &passThrough ? InputName(update.a) : "n" + std::to_string(number);
}

std::string Build(const Graph& graph) {
  ModelBuilder model;
  model.Int64s("order", {4}, {3, 2, 1, 0});
  for (std::size_t i = 0; i < graph.updates.size(); ++i) {
    const auto& [operation, a, b] = graph.updates[i];
    model.Input(InputName(i), Element::Float, {4});
    model.Output(OutputName(graph, i), Element::Float, {4});
    if (&operation == &passThrough) continue;
    std::vector<std::string> inputs = {InputName(a)};
    if (operation.isReversed)
      inputs.emplace_back("order");
    else if (operation.name != std::string("Identity"))
      inputs.push_back(InputName(b));
    model.Node(operation.name, inputs, {OutputName(graph, i)});
  }
  return model.Build();
}

Values Expected(const Update& update, const std::vector<Values>& inputs) {
  Values result(valueCount);
  for (std::size_t i = 0; i < valueCount; ++i)
    result[i] = update.operation.apply(inputs[update.a][i], inputs[update.b][i]);
  if (update.operation.isReversed) std::reverse(result.begin(), result.end());
  return result;
}

/// Runs a graph from random states beside its definition.
void ExpectFollowsDefinition(const Graph& graph, std::mt19937_64& random) {
  SCOPED_TRACE(graph.name);
  Rig rig(Build(graph));
  const Shape shape = {valueCount};
  const std::size_t last = graph.updates.size() - 1;
  std::vector<std::shared_ptr<Tensor>> inputs;
  for (std::size_t i = 0; i < last; ++i)
    inputs.push_back(rig.State(InputName(i), OutputName(graph, i), shape));
  inputs.push_back(rig.Input(InputName(last), shape));
  std::vector<std::shared_ptr<Tensor>> outputs(inputs.begin(), inputs.end() - 1);
  outputs.push_back(rig.Output(OutputName(graph, last), shape));
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));

  std::vector<Values> values(inputs.size(), Values(valueCount));
  const auto randomize = [&](std::size_t number) {
    for (double& value : values[number])
      value = std::uniform_real_distribution<float>(-1, 1)(random);
    std::copy(values[number].begin(), values[number].end(),
              Elements(*inputs[number], valueCount).begin());
  };
  for (std::size_t i = 0; i < last; ++i)
    randomize(i);
  for (int evaluation = 0; evaluation < 7; ++evaluation) {
    randomize(last);
    std::vector<Values> expected;
    for (const Update& update : graph.updates)
      expected.push_back(Expected(update, values));
    ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
    for (std::size_t number = 0; number <= last; ++number) {
      for (std::size_t i = 0; i < valueCount; ++i)
        ASSERT_NEAR(Elements(*outputs[number], valueCount)[i], expected[number][i], 1e-5)
            << OutputName(graph, number) << "[" << i << "] after evaluation " << evaluation;
    }
    values = expected;
  }
}

TEST(States, FollowTheDefinition) {
  std::mt19937_64 random(TestSeed());
  const Graph graphs[] = {
      {"two states swapped by nodes", {{identity, 1}, {identity, 0}, {identity, 0}}},
      {"two states swapped by name", {{passThrough, 1}, {passThrough, 0}, {passThrough, 2}}},
      {"state to itself and out", {{identity, 0}, {passThrough, 0}}},
      {"in to a state, state out", {{passThrough, 1}, {passThrough, 0}}},
      {"reversed state with a second reader", {{reversed, 0}, {identity, 0}}},
  };
  for (const Graph& graph : graphs)
    ExpectFollowsDefinition(graph, random);
  for (int i = 0; i < 60 && !HasFailure(); ++i)
    ExpectFollowsDefinition(RandomGraph(random), random);
}

/// Text cannot be seen from outside, so the model tells it: y[i] is 1 where s0[i] is the text, 2
/// where it is empty. Each state is made from the other: s0 gets s1 by name, s1 gets s0 with the
/// text put in where x says so.
TEST(States, OfTextAreReadAsTheEvaluationBeforeLeftThem) {
  using namespace std::string_literals;
  const std::string text = "a text with a zero \0 that does not fit into a small string object"s;
  ModelBuilder model;
  model.Input("x", Element::Bool, {3})
      .Input("s0", Element::String, {3})
      .Input("s1", Element::String, {3})
      .Output("y", Element::Float, {3})
      .Output("s1", Element::String, {3})
      .Output("n1", Element::String, {3})
      .Strings("text", {1}, {text})
      .Node("Where", {"x", "text", "s0"}, {"n1"})
      .Node("LabelEncoder", {"s0"}, {"y"},
            {{"keys_strings", std::vector<std::string>{text, ""}},
             {"values_floats", std::vector<float>{1, 2}},
             {"default_float", 0.0F}},
            "ai.onnx.ml");
  Rig rig(model.Build());
  const auto x = rig.Input("x", {3}, TensorKind::Boolean);
  const auto y = rig.Output("y", {3});
  rig.State("s0", "s1", {3}, TensorKind::String);
  rig.State("s1", "n1", {3}, TensorKind::String);
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
    std::vector<float> s0 = {2, 2, 2};
    std::vector<float> s1 = {2, 2, 2};
    for (const std::size_t place : {0, 1, 1, 2, 0, 2}) {
      const auto chosen = Elements<bool>(*x, 3);
      std::fill(chosen.begin(), chosen.end(), false);
      chosen[place] = true;
      ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
      const auto seen = Elements(*y, 3);
      EXPECT_EQ(std::vector<float>(seen.begin(), seen.end()), s0) << "round " << round;
      std::vector<float> changed = s0;
      changed[place] = 1;
      s0 = s1;
      s1 = changed;
    }
  }
}

}  // namespace
