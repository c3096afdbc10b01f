#include "platform/rig.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace TestSupport;
using Update = StateOptions::Update;

const char* const stateInput = "state1";
const char* const stateOutput = "newState1";

/// The audio tensors of MakeAudioModel with W = 8, one channel and one window.
struct Audio {
  explicit Audio(Rig& rig)
      : input(rig.Input("input", {1, 1, 8})), output(rig.Output("output", {1, 1, 1, 8})) {}
  std::span<float> In() const { return Elements(*input, 8); }
  std::span<float> Out() const { return Elements(*output, 8); }

  std::shared_ptr<Tensor> input, output;
};

TEST(Bind, RefusesNamesOfTheOtherSideUnknownOnesAndNoTensor) {
  Rig rig(MakeAudioModel({.states = {{}}}));
  const auto tensor = MakeTensor(TensorKind::Float, {1});
  const struct {
    const char* name;
    Side side;
    const char* feature;
    std::shared_ptr<Tensor> tensor;
    ResultCode code;
  } rows[] = {
      {"input of the model", Side::Input, stateInput, tensor, ResultCodes::Ok},
      {"output of the model", Side::Output, stateOutput, tensor, ResultCodes::Ok},
      {"output as input", Side::Input, stateOutput, tensor, ResultCodes::InvalidArgument},
      {"input as output", Side::Output, stateInput, tensor, ResultCodes::InvalidArgument},
      {"unknown", Side::Input, "nothing", tensor, ResultCodes::InvalidArgument},
      {"other case", Side::Input, "State1", tensor, ResultCodes::InvalidArgument},
      {"empty", Side::Output, "", tensor, ResultCodes::InvalidArgument},
      {"no tensor", Side::Input, stateInput, nullptr, ResultCodes::InvalidArgument},
  };
  for (const auto& row : rows)
    EXPECT_EQ(Hex(rig.Bind(row.side, row.feature, row.tensor)), Hex(row.code)) << row.name;
}

TEST(Prepare, RefusesTensorsThatDoNotFitAndTakesThoseThatDoAfterwards) {
  const struct {
    const char* name;
    std::uint32_t kind;
    Shape input, output, state;
  } rows[] = {
      {"input rank", TensorKind::Float, {1, 8}, {2, 1, 3, 8}, {5}},
      {"input features", TensorKind::Float, {1, 5, 7}, {2, 1, 3, 8}, {5}},
      {"input kind", TensorKind::Double, {1, 5, 8}, {2, 1, 3, 8}, {5}},
      {"input shorter than the lookahead", TensorKind::Float, {1, 1, 8}, {2, 1, 3, 8}, {5}},
      {"output classes", TensorKind::Float, {1, 5, 8}, {1, 1, 3, 8}, {5}},
      {"output windows", TensorKind::Float, {1, 5, 8}, {2, 1, 5, 8}, {5}},
      {"output rank", TensorKind::Float, {1, 5, 8}, {48}, {5}},
      {"state size", TensorKind::Float, {1, 5, 8}, {2, 1, 3, 8}, {4}},
      {"no state", TensorKind::Float, {1, 5, 8}, {2, 1, 3, 8}, {}},
  };
  for (const auto& row : rows) {
    Rig rig(MakeAudioModel({.lookahead = 2, .classGains = {1, 2}, .states = {{.shape = {5}}}}));
    rig.Input("input", row.input, row.kind);
    rig.Output("output", row.output);
    if (!row.state.empty()) rig.State(stateInput, stateOutput, row.state);
    EXPECT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::IllegalMethodCall)) << row.name;
    EXPECT_TRUE(Failed(rig.Prepare())) << row.name;
    EXPECT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::IllegalMethodCall)) << row.name;

    rig.Input("input", {1, 5, 8});
    rig.Output("output", {2, 1, 3, 8});
    rig.State(stateInput, stateOutput, {5});
    EXPECT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok)) << row.name;
    EXPECT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok)) << row.name;
  }
}

TEST(Prepare, RefusesOneTensorForTwoOutputs) {
  Rig rig(MakeAudioModel({.states = {{}, {}}}));
  const Audio audio(rig);
  const auto shared = rig.State("state1", "newState1", {1});
  ASSERT_EQ(Hex(rig.Bind(Side::Input, "state2", shared)), Hex(ResultCodes::Ok));
  ASSERT_EQ(Hex(rig.Bind(Side::Output, "newState2", shared)), Hex(ResultCodes::Ok));
  EXPECT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::InvalidArgument));
}

TEST(Prepare, LeavesAllTensorsZeroHoweverOftenTheModelHasRun) {
  Rig rig(MakeAudioModel({.states = {{.isHeard = true}}}));
  const Audio audio(rig);
  const auto state = rig.State(stateInput, stateOutput, {1});
  for (int evaluations = 0; evaluations < 4; ++evaluations) {
    std::fill(audio.In().begin(), audio.In().end(), 7.0F);
    ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
    EXPECT_EQ(audio.In()[0], 0.0F);
    EXPECT_EQ(audio.Out()[0], 0.0F);
    EXPECT_EQ(Elements(*state, 1)[0], 0.0F);
    for (int i = 0; i < evaluations; ++i) {
      ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
      EXPECT_EQ(audio.Out()[0], static_cast<float>(i)) << "evaluation after Prepare";
    }
  }
}

TEST(Prepare, BringsNewTensorsIntoForceAndNotBefore) {
  Rig rig(MakeAudioModel({.states = {{.shape = {"C"}, .isHeard = true}}}));
  const Audio audio(rig);
  auto state = rig.State(stateInput, stateOutput, {1});
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));

  const auto input = rig.Input("input", {2, 3, 8});
  const auto output = rig.Output("output", {1, 2, 3, 8});
  state = rig.State(stateInput, stateOutput, {2});
  ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
  EXPECT_EQ(audio.Out()[0], 1.0F) << "the earlier tensors, kept by the binding alone";

  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  Elements(*input, 48)[47] = 5;
  ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
  EXPECT_EQ(Elements(*output, 48)[47], 5.0F);
  EXPECT_EQ(Elements(*state, 2)[1], 1.0F);
}

TEST(Evaluate, ThatFailsLeavesStatesAndTurnsAsTheyWere) {
  Rig rig(MakeAudioModel({.states = {{.isHeard = true}}, .failsOnLevel = true}));
  const Audio audio(rig);
  const auto state = rig.State(stateInput, stateOutput, {1});
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  float succeeded = 0;
  for (const char outcome : std::string("+-+--+---++-+")) {
    audio.In()[3] = outcome == '-' ? 1.5F : 0.25F;
    const ResultCode code = rig.Evaluate();
    ASSERT_EQ(Failed(code), outcome == '-') << Hex(code);
    if (outcome == '-') {
      const std::string said = winrt::hresult_error(code).message();
      EXPECT_NE(said.find("Gather"), std::string::npos) << said;
    } else {
      EXPECT_EQ(audio.Out()[3], succeeded + 0.25F);
      ++succeeded;
    }
    EXPECT_EQ(Elements(*state, 1)[0], succeeded);
  }
}

TEST(Evaluate, RefusesABindingOfAnotherModel) {
  Rig one(MakeAudioModel());
  Rig other(MakeAudioModel());
  const Audio audio(other);
  ASSERT_EQ(Hex(other.Prepare()), Hex(ResultCodes::Ok));
  EXPECT_EQ(Hex(one.session->Evaluate(*other.binding, u"")), Hex(ResultCodes::InvalidArgument));
}

TEST(Evaluate, GivesAConstantOutput) {
  Rig rig(ModelBuilder()
              .Input("input", Element::Float, {1})
              .Output("output", Element::Float, {2})
              .Floats("output", {2}, {3, 4})
              .Build());
  rig.Input("input", {1});
  const auto output = rig.Output("output", {2});
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
    EXPECT_EQ(Elements(*output, 2)[1], 4.0F) << i;
  }
}

// Outputs that are inputs by name: the engine has no node that would write them.

TEST(PassThrough, OfAStateToItselfKeepsItsValue) {
  Rig rig(MakeAudioModel(
      {.states = {{.update = Update::PassThrough, .isHeard = true}, {.isHeard = true}}}));
  const Audio audio(rig);
  const auto kept = rig.State("state1", "state1", {1});
  rig.State("state2", "newState2", {1});
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  Elements(*kept, 1)[0] = 100;
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
    EXPECT_EQ(audio.Out()[0], 100.0F + static_cast<float>(i));
    EXPECT_EQ(Elements(*kept, 1)[0], 100.0F);
  }
}

/// state1 counts; what comes out for state2 is the input state1, for state3 the input state2. So
/// the count arrives there one and two evaluations late.
TEST(PassThrough, FromStateToStateIsAShiftRegisterOfEveryKind) {
  for (std::uint32_t kind = TensorKind::Float; kind <= TensorKind::UInt64; ++kind) {
    const auto element = static_cast<Element>(kind);
    Rig rig(MakeAudioModel({.states = {{.element = element, .shape = {2}},
                                       {.element = element,
                                        .shape = {2},
                                        .update = Update::PassThrough,
                                        .outputName = "state1"},
                                       {.element = element,
                                        .shape = {2},
                                        .update = Update::PassThrough,
                                        .isHeard = true,
                                        .outputName = "state2"}}}));
    const Audio audio(rig);
    rig.State("state1", "newState1", {2}, kind);
    rig.State("state2", "state1", {2}, kind);
    rig.State("state3", "state2", {2}, kind);
    ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok)) << "kind " << kind;
    for (int i = 0; i < 7; ++i) {
      ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok)) << "kind " << kind;
      const int count = std::max(0, i - 2);
      const int heard = kind == TensorKind::Boolean  ? count % 2
                        : kind == TensorKind::String ? std::min(count, 1)
                                                     : count;
      EXPECT_EQ(audio.Out()[0], static_cast<float>(heard))
          << "kind " << kind << " evaluation " << i;
    }
  }
}

TEST(PassThrough, OfTwoStatesCrosswiseSwapsThem) {
  Rig rig(MakeAudioModel({.states = {{.update = Update::PassThrough, .outputName = "state2"},
                                     {.update = Update::PassThrough, .outputName = "state1"}}}));
  const Audio audio(rig);
  const auto first = rig.State("state1", "state2", {1});
  const auto second = rig.State("state2", "state1", {1});
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  float a = 1;
  float b = 2;
  Elements(*first, 1)[0] = a;
  Elements(*second, 1)[0] = b;
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
    std::swap(a, b);
    EXPECT_EQ(Elements(*first, 1)[0], a) << i;
    EXPECT_EQ(Elements(*second, 1)[0], b) << i;
  }
}

TEST(PassThrough, OfAStateToTheAudioOutputIsTheStateBeforeTheEvaluation) {
  Rig rig(ModelBuilder()
              .Input("input", Element::Float, {1, 1, 8})
              .Input("output", Element::Float, {1, 1, 8})
              .Output("output", Element::Float, {1, 1, 8})
              .Output("sum", Element::Float, {1, 1, 8})
              .Node("Add", {"input", "output"}, {"sum"})
              .Build());
  const auto input = rig.Input("input", {1, 1, 8});
  const auto output = rig.Output("output", {1, 1, 8});
  rig.State("output", "sum", {1, 1, 8});
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  float sum = 0;
  for (int i = 0; i < 5; ++i) {
    Elements(*input, 8)[7] = static_cast<float>(i + 1);
    ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
    EXPECT_EQ(Elements(*output, 8)[7], sum);
    sum += static_cast<float>(i + 1);
  }
}

TEST(PassThrough, ServesAModelWithoutAnyNode) {
  Rig rig(ModelBuilder()
              .Input("input", Element::Float, {"T"})
              .Input("state", Element::Double, {2})
              .Output("input", Element::Float, {"T"})
              .Output("state", Element::Double, {2})
              .Build());
  const auto input = rig.Input("input", {3});
  const auto output = rig.Output("input", {3});
  const auto state = rig.State("state", "state", {2}, TensorKind::Double);
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  Elements<double>(*state, 2)[1] = 0.5;
  for (int i = 0; i < 3; ++i) {
    Elements(*input, 3)[2] = static_cast<float>(i);
    ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
    EXPECT_EQ(Elements(*output, 3)[2], static_cast<float>(i));
    EXPECT_EQ(Elements<double>(*state, 2)[1], 0.5);
  }
}

TEST(PassThrough, ToATensorOfAnotherTypeIsRefused) {
  const struct {
    const char* name;
    std::uint32_t kind;
    Shape shape;
  } rows[] = {{"shape", TensorKind::Float, {2}},
              {"rank", TensorKind::Float, {1, 1}},
              {"kind", TensorKind::Int32, {1}},
              {"larger kind", TensorKind::Double, {1}}};
  for (const auto& row : rows) {
    Rig rig(
        MakeAudioModel({.states = {{}, {.update = Update::PassThrough, .outputName = "state1"}}}));
    const Audio audio(rig);
    rig.State("state1", "newState1", {1});
    rig.Input("state2", {1});
    rig.Output("state1", row.shape, row.kind);
    EXPECT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::InvalidArgument)) << row.name;
  }
}

}  // namespace
