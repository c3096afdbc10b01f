#include "platform/rig.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace TestSupport;

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
  Rig rig(MakeAudioModel(
      {.lookahead = 2,
       .classGains = {1, 2},
       .states = {
           {.shape = {5}},
           {.shape = {5}, .update = StateOptions::Update::PassThrough, .outputName = "state1"}}}));
  const auto bindAll = [&] {
    rig.Input("input", {1, 5, 8});
    rig.Output("output", {2, 1, 3, 8});
    rig.State(stateInput, stateOutput, {5});
    rig.State("state2", "state1", {5});
  };
  const struct {
    const char* name;
    Side side;
    const char* feature;
    Shape shape;
    std::uint32_t kind = TensorKind::Float;
  } rows[] = {
      {"input rank", Side::Input, "input", {1, 8}},
      {"input features", Side::Input, "input", {1, 5, 7}},
      {"input kind", Side::Input, "input", {1, 5, 8}, TensorKind::Double},
      {"input shorter than the lookahead", Side::Input, "input", {1, 1, 8}},
      {"output classes", Side::Output, "output", {1, 1, 3, 8}},
      {"output windows", Side::Output, "output", {2, 1, 5, 8}},
      {"output rank", Side::Output, "output", {48}},
      {"state size", Side::Input, stateInput, {4}},
      {"size of a copy", Side::Output, "state1", {4}},
      {"rank of a copy", Side::Output, "state1", {1, 5}},
      {"kind of a copy", Side::Output, "state1", {5}, TensorKind::Int32},
      {"larger kind of a copy", Side::Output, "state1", {5}, TensorKind::Double},
  };
  EXPECT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::IllegalMethodCall)) << "not prepared";
  EXPECT_TRUE(Failed(rig.Prepare())) << "nothing bound";
  for (const auto& row : rows) {
    bindAll();
    CheckResult(rig.Bind(row.side, row.feature, MakeTensor(row.kind, row.shape)));
    EXPECT_TRUE(Failed(rig.Prepare())) << row.name;
    EXPECT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::IllegalMethodCall)) << row.name;
    bindAll();
    EXPECT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok)) << row.name;
    EXPECT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok)) << row.name;
  }
  CheckResult(rig.Bind(Side::Output, "state1", rig.State(stateInput, stateOutput, {5})));
  EXPECT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::InvalidArgument)) << "one tensor for two outputs";
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

/// The model wants more than a process can address, then again what it can have.
TEST(Evaluate, ThatRunsOutOfMemorySaysSoAndCanGoOn) {
#ifdef KALVRIN_SANITIZED
  GTEST_SKIP() << "a sanitizer's allocator ends the process";
#endif
  Rig rig(ModelBuilder()
              .Input("size", Element::Int64, {1})
              .Output("sum", Element::Float, {})
              .Floats("one", {1}, {1})
              .Node("Expand", {"one", "size"}, {"expanded"})
              .Node("ReduceSum", {"expanded"}, {"sum"}, {{"keepdims", 0}})
              .Build());
  const auto size = rig.Input("size", {1}, TensorKind::Int64);
  const auto sum = rig.Output("sum", {});
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  Elements<std::int64_t>(*size, 1)[0] = std::int64_t{1} << 46;
  EXPECT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::OutOfMemory));
  Elements<std::int64_t>(*size, 1)[0] = 5;
  ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
  EXPECT_EQ(Elements(*sum, 1)[0], 5.0F);
}

TEST(Evaluate, RefusesABindingOfAnotherModel) {
  Rig one(MakeAudioModel());
  Rig other(MakeAudioModel());
  const Audio audio(other);
  ASSERT_EQ(Hex(other.Prepare()), Hex(ResultCodes::Ok));
  EXPECT_EQ(Hex(one.session->Evaluate(*other.binding, u"")), Hex(ResultCodes::InvalidArgument));
}

}  // namespace
