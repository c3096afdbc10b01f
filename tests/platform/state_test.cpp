#include "platform/rig.h"
#include "support/audio_models.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>

// Recurrent states in graphs where the order of reading the old and writing the new values shows.
// In every probe the states are s0, s1, ..., what becomes of them n0, n1, ..., the other input x
// and the other output y, all of one shape.

namespace {

using namespace TestSupport;

using Values = std::vector<double>;
using States = std::vector<Values>;

struct Step {
  States states;
  Values y;
};

struct Probe {
  const char* name;
  Shape shape;
  std::size_t stateCount;
  std::function<void(ModelBuilder&)> build;
  std::function<Step(const States&, const Values& x)> step;
};

std::size_t CountOf(const Shape& shape) {
  std::int64_t count = 1;
  for (const std::int64_t dimension : shape)
    count *= dimension;
  return static_cast<std::size_t>(count);
}

Values Apply(const std::function<double(double, double)>& operation, const Values& a,
             const Values& b) {
  Values result(a.size());
  for (std::size_t i = 0; i < a.size(); ++i)
    result[i] = operation(a[i], b[i]);
  return result;
}
Values Sum(const Values& a, const Values& b) {
  return Apply(std::plus<>(), a, b);
}
Values Product(const Values& a, const Values& b) {
  return Apply(std::multiplies<>(), a, b);
}
Values Reversed(const Values& a) {
  return {a.rbegin(), a.rend()};
}

Values Transposed(const Values& a, std::size_t size) {
  Values result(a.size());
  for (std::size_t i = 0; i < a.size(); ++i)
    result[i] = a[i % size * size + i / size];
  return result;
}

/// The ONNX operator GRU on one window, by its definition.
Values Gru(const Values& x, const Values& h) {
  const std::size_t size = h.size();
  const GruWeights weights = MakeGruWeights(static_cast<std::int64_t>(size));
  const auto row = [&](const std::vector<float>& matrix, std::size_t i, const Values& vector) {
    double sum = 0;
    for (std::size_t k = 0; k < size; ++k)
      sum += matrix[i * size + k] * vector[k];
    return sum;
  };
  const auto gate = [&](std::size_t number, const Values& recurrent) {
    Values sums(size);
    for (std::size_t i = 0; i < size; ++i) {
      const std::size_t j = number * size + i;
      sums[i] = row(weights.input, j, x) + row(weights.recurrent, j, recurrent) + weights.bias[j] +
                weights.bias[3 * size + j];
    }
    return sums;
  };
  const auto sigmoid = [](double value, double) { return 1 / (1 + std::exp(-value)); };
  const Values z = Apply(sigmoid, gate(0, h), h);
  const Values r = Apply(sigmoid, gate(1, h), h);
  const Values candidate = gate(2, Product(r, h));
  Values result(size);
  for (std::size_t i = 0; i < size; ++i)
    result[i] = (1 - z[i]) * std::tanh(candidate[i]) + z[i] * h[i];
  return result;
}

void BuildGru(ModelBuilder& model) {
  const GruWeights weights = MakeGruWeights(4);
  model.Floats("w", {1, 12, 4}, weights.input)
      .Floats("r", {1, 12, 4}, weights.recurrent)
      .Floats("b", {1, 24}, weights.bias)
      .Node("GRU", {"x", "w", "r", "b", "", "s0"}, {"", "n0"}, {{"hidden_size", 4}})
      .Node("Add", {"n0", "s0"}, {"y"});
}

const std::vector<Probe>& Probes() {
  static const std::vector<Probe> probes = {
      {"old value read after the new one is made",
       {3},
       1,
       [](ModelBuilder& model) {
         model.Node("Add", {"s0", "x"}, {"n0"}).Node("Mul", {"s0", "n0"}, {"y"});
       },
       [](const States& s, const Values& x) -> Step {
         return {{Sum(s[0], x)}, Product(s[0], Sum(s[0], x))};
       }},
      {"two states swapped",
       {3},
       2,
       [](ModelBuilder& model) {
         model.Node("Identity", {"s1"}, {"n0"})
             .Node("Identity", {"s0"}, {"n1"})
             .Node("Add", {"s0", "x"}, {"y"});
       },
       [](const States& s, const Values& x) -> Step {
         return {{s[1], s[0]}, Sum(s[0], x)};
       }},
      {"reversed Slice",
       {5},
       1,
       [](ModelBuilder& model) {
         model.Int64s("from", {1}, {-1})
             .Int64s("to", {1}, {-6})
             .Int64s("axis", {1}, {0})
             .Int64s("back", {1}, {-1})
             .Node("Slice", {"s0", "from", "to", "axis", "back"}, {"n0"})
             .Node("Add", {"n0", "x"}, {"y"});
       },
       [](const States& s, const Values& x) -> Step {
         return {{Reversed(s[0])}, Sum(Reversed(s[0]), x)};
       }},
      {"Transpose from state to state",
       {3, 3},
       1,
       [](ModelBuilder& model) {
         model.Node("Transpose", {"s0"}, {"n0"}).Node("Add", {"s0", "x"}, {"y"});
       },
       [](const States& s, const Values& x) -> Step {
         return {{Transposed(s[0], 3)}, Sum(s[0], x)};
       }},
      {"MatMul and Add",
       {2, 2},
       1,
       [](ModelBuilder& model) {
         model.Floats("m", {2, 2}, {0, 1, 0.5, 0.25})
             .Floats("b", {2}, {0.125, 1})
             .Node("MatMul", {"s0", "m"}, {"product"})
             .Node("Add", {"product", "b"}, {"n0"})
             .Node("Add", {"n0", "x"}, {"y"});
       },
       [](const States& s, const Values& x) -> Step {
         const Values& a = s[0];
         const Values next = {a[1] * 0.5 + 0.125, a[0] + a[1] * 0.25 + 1, a[3] * 0.5 + 0.125,
                              a[2] + a[3] * 0.25 + 1};
         return {{next}, Sum(next, x)};
       }},
      {"GRU whose old state has a second reader",
       {1, 1, 4},
       1,
       BuildGru,
       [](const States& s, const Values& x) -> Step {
         const Values next = Gru(x, s[0]);
         return {{next}, Sum(next, s[0])};
       }},
  };
  return probes;
}

/// A probe of random operations between random states: swaps, rings, reversals, several readers of
/// one state. All values stay within -1 and 1.
Probe RandomProbe(std::mt19937_64& random) {
  struct Operation {
    const char* name;
    Values (*apply)(const Values&, const Values&);
  };
  static constexpr Operation operations[] = {
      {"Mean",
       [](const Values& a, const Values& b) {
         return Apply([](double c, double d) { return (c + d) / 2; }, a, b);
       }},
      {"Mul", [](const Values& a, const Values& b) { return Product(a, b); }},
      {"Max",
       [](const Values& a, const Values& b) {
         return Apply([](double c, double d) { return std::max(c, d); }, a, b);
       }},
      {"Identity", [](const Values& a, const Values&) { return a; }},
      {"Gather", [](const Values& a, const Values&) { return Reversed(a); }},
  };
  struct Update {
    const Operation* operation;
    std::size_t a, b;
  };
  const std::size_t stateCount = 1 + random() % 4;
  std::vector<Update> updates;
  for (std::size_t i = 0; i < stateCount; ++i)
    updates.push_back({&operations[random() % std::size(operations)], random() % stateCount,
                       random() % stateCount});

  const auto build = [updates](ModelBuilder& model) {
    model.Int64s("order", {4}, {3, 2, 1, 0}).Node("Mul", {"x", "s0"}, {"y"});
    for (std::size_t i = 0; i < updates.size(); ++i) {
      const auto& [operation, a, b] = updates[i];
      std::vector<std::string> inputs = {"s" + std::to_string(a)};
      if (operation->name == std::string("Gather"))
        inputs.emplace_back("order");
      else if (operation->name != std::string("Identity"))
        inputs.push_back("s" + std::to_string(b));
      model.Node(operation->name, inputs, {"n" + std::to_string(i)});
    }
  };
  const auto step = [updates](const States& s, const Values& x) -> Step {
    States next;
    for (const auto& [operation, a, b] : updates)
      next.push_back(operation->apply(s[a], s[b]));
    return {next, Product(x, s[0])};
  };
  return {"random", {4}, stateCount, build, step};
}

Rig RigFor(const Probe& probe) {
  const Dimensions shape(probe.shape.begin(), probe.shape.end());
  ModelBuilder model;
  model.Input("x", Element::Float, shape).Output("y", Element::Float, shape);
  for (std::size_t i = 0; i < probe.stateCount; ++i)
    model.Input("s" + std::to_string(i), Element::Float, shape)
        .Output("n" + std::to_string(i), Element::Float, shape);
  probe.build(model);
  return Rig(model.Build());
}

/// Runs a probe from random states beside its definition.
void ExpectFollowsDefinition(const Probe& probe, std::mt19937_64& random) {
  SCOPED_TRACE(probe.name);
  std::uniform_real_distribution<float> level(-1, 1);
  const std::size_t count = CountOf(probe.shape);
  Rig rig = RigFor(probe);
  const auto x = rig.Input("x", probe.shape);
  const auto y = rig.Output("y", probe.shape);
  std::vector<std::shared_ptr<Tensor>> tensors;
  for (std::size_t i = 0; i < probe.stateCount; ++i)
    tensors.push_back(rig.State("s" + std::to_string(i), "n" + std::to_string(i), probe.shape));
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));

  const auto randomize = [&](Tensor& tensor) {
    for (float& value : Elements(tensor, count))
      value = level(random);
    const auto values = Elements(tensor, count);
    return Values(values.begin(), values.end());
  };
  States states;
  for (const auto& tensor : tensors)
    states.push_back(randomize(*tensor));
  for (int evaluation = 0; evaluation < 7; ++evaluation) {
    const Step expected = probe.step(states, randomize(*x));
    ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_NEAR(Elements(*y, count)[i], expected.y[i], 1e-5)
          << "y[" << i << "] of evaluation " << evaluation;
      for (std::size_t j = 0; j < states.size(); ++j)
        ASSERT_NEAR(Elements(*tensors[j], count)[i], expected.states[j][i], 1e-5)
            << "state " << j << "[" << i << "] after evaluation " << evaluation;
    }
    states = expected.states;
  }
}

TEST(States, AreReadAsTheEvaluationBeforeLeftThem) {
  std::mt19937_64 random(TestSeed());
  for (const Probe& probe : Probes())
    ExpectFollowsDefinition(probe, random);
}

TEST(States, OfRandomGraphsFollowTheDefinition) {
  std::mt19937_64 random(TestSeed());
  for (int i = 0; i < 40 && !HasFailure(); ++i)
    ExpectFollowsDefinition(RandomProbe(random), random);
}

/// Text cannot be seen from outside, so the model tells it: y[i] is 1 where s0[i] is the text, 2
/// where it is empty. Each state is made from the other: n0 is s1 reversed, n1 is s0 with the text
/// put in where x says so.
TEST(States, OfTextAreReadAsTheEvaluationBeforeLeftThem) {
  const std::string text = "a text that does not fit into a small string object";
  ModelBuilder model;
  model.Input("x", Element::Bool, {3})
      .Input("s0", Element::String, {3})
      .Input("s1", Element::String, {3})
      .Output("y", Element::Float, {3})
      .Output("n0", Element::String, {3})
      .Output("n1", Element::String, {3})
      .Strings("text", {1}, {text})
      .Int64s("order", {3}, {2, 1, 0})
      .Node("Gather", {"s1", "order"}, {"n0"})
      .Node("Where", {"x", "text", "s0"}, {"n1"})
      .Node("LabelEncoder", {"s0"}, {"y"},
            {Attribute::Strings("keys_strings", {text, ""}),
             Attribute::Floats("values_floats", {1, 2}),
             {"default_float", 0.0}},
            "ai.onnx.ml");
  Rig rig(model.Build());
  const auto x = rig.Input("x", {3}, TensorKind::Boolean);
  const auto y = rig.Output("y", {3});
  rig.State("s0", "n0", {3}, TensorKind::String);
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
      s0 = {s1[2], s1[1], s1[0]};
      s1 = changed;
    }
  }
}

}  // namespace
