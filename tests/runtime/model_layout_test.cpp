#include "runtime/model_layout.h"
#include "support/fake_platform.h"
#include "support/outcome.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

using namespace Orvik::Tesmo;
using namespace Orvik::Tesmo::Dnn;
using Platform::Shape;
using TestSupport::FakeModel;
using TestSupport::FakeRuntime;
using TestSupport::Outcome;

ModelLayout ReadLayout(const FakeModel& fake) {
  FakeRuntime runtime(fake);
  std::shared_ptr<Platform::Model> model;
  CheckResult(runtime.LoadModel("x", 1, model));
  return ModelLayout(*model);
}

ModelLayout ReadLayout(const Shape& input, const Shape& output) {
  return ReadLayout(FakeModel{{{u"input", input}}, {{u"output", output}}});
}

/// The shape that `settle` returns, as "2,4,480", or the text of its refusal.
template <class Settle>
std::string Settled(Settle settle) {
  std::string text;
  const std::string outcome = Outcome([&] {
    for (const std::int64_t dimension : settle())
      text += (text.empty() ? "" : ",") + std::to_string(dimension);
  });
  return outcome == "ok" ? text : outcome;
}

TEST(ModelLayout, SettlesFreeDimensionsAndRefusesOthersInOrder) {
  const char* const inputSequence = "Input sequence size cannot be changed on this model";
  const char* const inputChannels = "Number of input channels cannot be changed on this model";
  const char* const outputSequence = "Output sequence size cannot be changed on this model";
  const char* const outputChannels = "Number of output channels cannot be changed on this model";
  const char* const classes = "Incorrect number of extracted audio classes";
  const Shape fixedIn = {1, 4, 480}, fixedOut = {3, 1, 4, 6};
  // clang-format off
  const struct {
    const char* name;
    Shape input, output;
    std::uint32_t windows, sequence, channels, classes;
    std::string settledInput, settledOutput;
  } rows[] = {
      {"spectra", {-1, -1, 257, 2}, {-1, -1, -1, 257, 2}, 5, 4, 2, 3, "2,5,257,2", "3,2,4,257,2"},
      {"zeros are free", {0, 0, 480}, {0, 0, 0, 0}, 4, 4, 2, 2, "2,4,480", "2,2,4,480"},
      {"rank 1", {480}, {-1}, 1, 1, 1, 1, "480", "480"},
      {"rank 2", {-1, 480}, {-1, -1}, 3, 2, 1, 1, "3,480", "2,480"},
      {"no classes: any count", {-1, -1, 8}, {-1, -1, 8}, 4, 4, 2, 9, "2,4,8", "2,4,8"},
      {"fixed sizes met", fixedIn, fixedOut, 4, 4, 1, 3, "1,4,480", "3,1,4,6"},
      {"sequence first", fixedIn, fixedOut, 5, 5, 2, 2, inputSequence, outputSequence},
      {"then channels", fixedIn, fixedOut, 4, 4, 2, 2, inputChannels, outputChannels},
      {"then classes", fixedIn, fixedOut, 4, 4, 1, 2, "1,4,480", classes},
  };
  // clang-format on
  for (const auto& row : rows) {
    const ModelLayout layout = ReadLayout(row.input, row.output);
    EXPECT_EQ(Settled([&] { return layout.GetInputShape(row.windows, row.channels); }),
              row.settledInput)
        << row.name;
    EXPECT_EQ(
        Settled([&] { return layout.GetOutputShape(row.sequence, row.channels, row.classes); }),
        row.settledOutput)
        << row.name;
  }
}

TEST(ModelLayout, RefusesWhatTheAudioPathCannotServe) {
  using Change = std::function<void(FakeModel&)>;
  const auto shapes = [](const Shape& input, const Shape& output) -> Change {
    return [=](FakeModel& model) {
      model.inputs[0].shape = input;
      model.outputs[0].shape = output;
    };
  };
  const char* const sides = "Spectra (Components) must be on the input (4 dimensions) and on the "
                            "output (5 dimensions), or on neither";
  const char* const pairs =
      "The last dimension of a spectral input must be 2: real and imaginary part";
  const char* const outputPairs =
      "The last dimension of a spectral output must be 2: real and imaginary part";
  const struct {
    const char* name;
    Change change;
    const char* outcome;
  } rows[] = {
      {"no inputs", [](FakeModel& m) { m.inputs.clear(); }, "0x8000000B"},
      {"no outputs", [](FakeModel& m) { m.outputs.clear(); }, "0x8000000B"},
      {"input no tensor", [](FakeModel& m) { m.inputs[0].kind = Platform::FeatureKind::Sequence; },
       "The first input is not a tensor"},
      {"output no tensor", [](FakeModel& m) { m.outputs[0].kind = Platform::FeatureKind::Map; },
       "The first output is not a tensor"},
      {"input of doubles", [](FakeModel& m) { m.inputs[0].tensorKind = 11; },
       "The first input is not a tensor of 32-bit floats"},
      {"output of halves", [](FakeModel& m) { m.outputs[0].tensorKind = 10; },
       "The first output is not a tensor of 32-bit floats"},
      {"state no tensor",
       [](FakeModel& m) {
         m.inputs.push_back({u"s", {1}, 1, Platform::FeatureKind::Other});
       },
       "Unexpected feature kind"},
      {"scalar input", shapes({}, {8}), "The first input must have 1 to 4 dimensions"},
      {"5 input dimensions", shapes({1, 1, 1, 8, 2}, {8}),
       "The first input must have 1 to 4 dimensions"},
      {"scalar output", shapes({8}, {}), "The first output must have 1 to 5 dimensions"},
      {"6 output dimensions", shapes({8}, {1, 1, 1, 1, 8, 2}),
       "The first output must have 1 to 5 dimensions"},
      {"free window", shapes({-1, -1, -1}, {-1, -1, -1, 8}),
       "The window length (Features) of the input must be fixed"},
      {"spectra in only", shapes({-1, -1, 5, 2}, {-1, -1, -1, 8}), sides},
      {"spectra out only", shapes({-1, -1, 8}, {-1, -1, -1, 5, 2}), sides},
      {"one component", shapes({-1, -1, 257, 1}, {-1, -1, -1, 257, 1}), pairs},
      {"free components", shapes({-1, -1, 257, -1}, {-1, -1, -1, 257, 2}), pairs},
      {"three output components", shapes({-1, -1, 257, 2}, {-1, -1, -1, 257, 3}), outputPairs},
      {"free output components", shapes({-1, -1, 257, 2}, {-1, -1, -1, 257, 0}), outputPairs},
      {"odd window", shapes({-1, -1, 481}, {-1, -1, -1, 481}),
       "The window length (Features) must be even"},
      {"one bin", shapes({-1, -1, 1, 2}, {-1, -1, -1, 1, 2}),
       "A spectrum must have 2 bins (Features) or more"},
      {"window beyond 31 bits, bins within them",
       shapes({-1, -1, (1 << 30) + 2, 2}, {-1, -1, -1, (1 << 30) + 2, 2}),
       "Stream sizes out of range"},
      {"window beyond 32 bits", shapes({-1, -1, 4294967296 + 8}, {-1, -1, -1, 8}),
       "Stream sizes out of range"},
  };
  for (const auto& row : rows) {
    FakeModel fake = TestSupport::MakeFakeAudioModel(8, {1});
    row.change(fake);
    EXPECT_EQ(Outcome([&] { ReadLayout(fake); }), row.outcome) << row.name;
  }
}

}  // namespace
