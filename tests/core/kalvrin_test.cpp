#include "core/kalvrin.h"
#include "failure/exceptions.h"
#include "kernels/cpu.h"
#include "support/fake_platform.h"
#include "support/outcome.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfenv>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Orvik::Tesmo;
using namespace Orvik::Tesmo::Dnn;
using TestSupport::FakeEvaluation;
using TestSupport::FakeModel;
using TestSupport::FakeRuntime;
using TestSupport::Outcome;

constexpr float NaN = std::numeric_limits<float>::quiet_NaN();
constexpr float Infinity = std::numeric_limits<float>::infinity();

/// One class that adds its state to the audio, two states that count evaluations in steps of 1 and
/// of 100, a lookahead of one window.
FakeModel CountingModel() {
  FakeModel model = TestSupport::MakeFakeAudioModel(4, {1});
  for (const auto* name : {u"ones", u"hundreds"}) {
    model.inputs.push_back({name, {-1}});
    model.outputs.push_back({std::u16string(u"new ") + name, {-1}});
  }
  model.metadata.push_back({u"LookaheadNumBlocks", u"1"});
  model.metadata.push_back({u"ChannelToAudioClassBindings", u"[[5,\"Class0\"]]"});
  model.evaluate = [audio = model.evaluate](const FakeEvaluation& run) {
    const ResultCode code = audio(run);
    const auto channels = static_cast<std::size_t>(run.inputs[0].shape[0]);
    const std::size_t perChannel = run.outputs[0].count / channels;
    for (std::size_t c = 0; c < channels; ++c) {
      const float ones = run.inputs[1].Floats()[c], hundreds = run.inputs[2].Floats()[c];
      run.outputs[1].Floats()[c] = ones + 1;
      run.outputs[2].Floats()[c] = hundreds + 100;
      for (std::size_t i = 0; i < perChannel; ++i)
        run.outputs[0].Floats()[c * perChannel + i] += ones + hundreds;
    }
    return code;
  };
  return model;
}

/// A core over CountingModel and what has to be heard of its class: evaluation n, from 1, is given
/// the value n all over; its first window out is the last one in of the evaluation before, and all
/// have the 101 (n - 1) of the states on top.
class Listener {
public:
  explicit Listener(Kalvrin& core) : core(core) {
    core.SetMasterGain(1);
    core.SetAudioClassGain(u"Class0", 1);
  }
  void StartAgain() { evaluations = 0; }
  /// Evaluates once. "ok", or what was heard instead.
  std::string Hear() {
    const auto n = static_cast<float>(++evaluations);
    const std::size_t window = core.GetGeometry().windowLength * core.GetGeometry().channelCount;
    std::vector<float> block(window * core.GetSequenceSize(), n), wanted = block;
    std::fill_n(wanted.begin(), window, n - 1);
    for (float& sample : wanted)
      sample += 101 * (n - 1);
    return Outcome([&] {
      core.EvaluateWindow(block.data(), block.data());
      if (block != wanted)
        throw std::runtime_error(std::to_string(block[0]) + " in evaluation " +
                                 std::to_string(evaluations));
    });
  }

private:
  Kalvrin& core;
  int evaluations = 0;
};

/// The calls that make, bind and run, in their order, and one call for each look at the model.
std::vector<std::string> MainCalls(const FakeRuntime& runtime) {
  std::vector<std::string> calls;
  for (const std::string& call : runtime.GetCalls())
    for (const char* name : {"Load", "Create", "Set", "Bind", "Prepare", "Evaluate", "GetMetadata",
                             "GetInputFeatures", "GetOutputFeatures"})
      if (call.starts_with(name) && (calls.empty() || calls.back() != call)) calls.push_back(call);
  return calls;
}

TEST(Kalvrin, AsksTheEngineInThisOrder) {
  FakeRuntime runtime(CountingModel());
  Kalvrin core(runtime.Shared(), runtime.Load(), 2, 3);
  std::vector<float> block(2 * 3 * 4);
  core.EvaluateWindow(block.data(), block.data());
  const std::vector<std::string> bound = {
      "Bind(ones)",  "Bind(new ones)", "Bind(hundreds)", "Bind(new hundreds)",
      "Bind(input)", "Bind(output)",   "Prepare"};
  std::vector<std::string> wanted = {"LoadModel",
                                     "GetInputFeatures",
                                     "GetOutputFeatures",
                                     "GetMetadata",
                                     "CreateDevice(1)",
                                     "CreateSessionOptions",
                                     "SetBatchSizeOverride(1)",
                                     "SetIntraOpNumThreadsOverride(1)",
                                     "CreateSession",
                                     "CreateBinding",
                                     "GetMetadata",
                                     "CreateTensor(1:3,3,4)",
                                     "CreateTensor(1:1,3,2,4)",
                                     "GetInputFeatures",
                                     "GetOutputFeatures",
                                     "CreateTensor(1:3)"};
  wanted.insert(wanted.end(), bound.begin(), bound.end());
  wanted.emplace_back("Evaluate(RunId)");
  EXPECT_EQ(MainCalls(runtime), wanted);
}

TEST(Kalvrin, SettlesItsSizes) {
  const std::u16string lookahead = u"LookaheadNumBlocks", baseline = u"BaselineSequenceSize";
  const struct {
    std::u16string key, text;
    std::uint64_t asked, sequenceSize;
    std::uint32_t lookahead;
    std::int32_t sampleRate;
    const char* outcome;
  } rows[] = {
      {u"", u"", 0, 4, 0, 0, "ok"},
      {u"", u"", 3, 3, 0, 0, "ok"},
      {baseline, u"8", 0, 8, 0, 0, "ok"},
      {baseline, u"0", 0, 4, 0, 0, "ok"},
      {baseline, u"-1", 3, 3, 0, 0, "ok"},
      {baseline, u"-1", 0, 0, 0, 0, "BaselineSequenceSize of the model is negative"},
      {baseline, u"2147483647", 0, 0, 0, 0, "Stream sizes out of range"},
      {lookahead, u"2.5", 1, 1, 2, 0, "ok"},
      {lookahead, u"-1", 1, 0, 0, 0, "LookaheadNumBlocks of the model is negative"},
      {lookahead, u"9999999999", 1, 0, 0, 0, "Stream sizes out of range"},
      {u"OverlapInSamples", u"3", 1, 1, 0, 0, "ok"},
      {u"SampleRate", u"16000", 1, 1, 0, 16000, "ok"},
  };
  for (const auto& row : rows) {
    FakeModel model = TestSupport::MakeFakeAudioModel(10, {1});
    model.metadata.push_back({row.key, row.text});
    FakeRuntime runtime(model);
    const std::string where(row.text.begin(), row.text.end());
    EXPECT_EQ(Outcome([&] {
                Kalvrin core(runtime.Shared(), runtime.Load(), row.asked, 1);
                EXPECT_EQ(core.GetSequenceSize(), row.sequenceSize) << where;
                EXPECT_EQ(core.GetGeometry().lookaheadBlocks, row.lookahead) << where;
                EXPECT_EQ(core.GetSampleRate(), row.sampleRate) << where;
                EXPECT_EQ(core.GetHopLength(), 5U);
                EXPECT_EQ(core.IsSpectral(), 0);
              }),
              row.outcome)
        << where;
    EXPECT_EQ(runtime.GetLiveObjects(), 0) << where;
  }
}

TEST(Kalvrin, EveryFailureOfTheEngineEndsConstructionAndLeavesNothing) {
  for (const ResultCode code : {ResultCodes::AccessDenied, ResultCodes::OutOfMemory}) {
    FakeRuntime runtime(CountingModel());
    const char* const failure = code == ResultCodes::OutOfMemory ? "bad_alloc" : "0x80070005";
    int overrides = 0;
    for (std::size_t n = 1;; ++n) {
      runtime.ClearCalls();
      runtime.FailCall(n, code);
      const std::string outcome =
          Outcome([&] { Kalvrin core(runtime.Shared(), runtime.Load(), 2, 2); });
      if (!runtime.StopFailing()) break;
      const std::string& call = runtime.GetCalls()[n - 1];
      const bool isWish = call == "SetIntraOpNumThreadsOverride(1)";
      EXPECT_EQ(outcome, isWish ? "ok" : failure) << call;
      EXPECT_EQ(runtime.GetLiveObjects(), 0) << call;
      overrides += isWish || call == "SetBatchSizeOverride(1)" ? 1 : 0;
    }
    EXPECT_EQ(overrides, 2) << "the engine is asked for one thread and a batch of one";
    Kalvrin core(runtime.Shared(), runtime.Load(), 2, 2);
    EXPECT_EQ(Listener(core).Hear(), "ok");
  }
}

TEST(Kalvrin, ARefusedChangeOfSizeLosesNothing) {
  bool (Kalvrin::*const changes[])(std::uint64_t) = {&Kalvrin::SetSequenceSize,
                                                     &Kalvrin::SetChannelCount};
  for (const auto change : changes) {
    FakeRuntime runtime(CountingModel());
    Kalvrin core(runtime.Shared(), runtime.Load(), 2, 2);
    Listener listener(core);
    const std::int64_t liveObjects = runtime.GetLiveObjects();
    EXPECT_FALSE((core.*change)(0));
    std::size_t n = 1;
    for (;; ++n) {
      runtime.ClearCalls();
      runtime.FailCall(n, ResultCodes::AccessDenied);
      const bool changed = (core.*change)(3);
      if (!runtime.StopFailing()) break;
      const std::string& call = runtime.GetCalls()[n - 1];
      EXPECT_FALSE(changed) << call;
      EXPECT_EQ(core.GetSequenceSize(), 2U) << call;
      EXPECT_EQ(core.GetGeometry().channelCount, 2U) << call;
      EXPECT_EQ(runtime.GetLiveObjects(), liveObjects) << call;
      EXPECT_EQ(listener.Hear(), "ok") << call;
    }
    EXPECT_GT(n, 15U);
    listener.StartAgain();
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(listener.Hear(), "ok") << "after the change";
  }
}

TEST(Kalvrin, FlushesDenormalsInTheModelOnly) {
  FakeModel model = TestSupport::MakeFakeAudioModel(2, {1});
  using Register = Orvik::Tesmo::Kernels::ControlRegister;
  constexpr Register::Bits flushing = Register::flushToZero | Register::denormalsAreZero;
  const Register::Bits before = Register::Read(), plain = before & ~Register::raised;
  std::fesetround(FE_TOWARDZERO);
  const Register::Bits towardZero = Register::Read();
  Register::Write(before);
  Register::Bits seen = 0;
  ResultCode answer = ResultCodes::Ok;
  model.evaluate = [&](const FakeEvaluation&) {
    seen = Register::Read();
    Register::Write(plain | Register::invalid);  // an engine that leaves something else behind
    return answer;
  };
  FakeRuntime runtime(model);
  Kalvrin core(runtime.Shared(), runtime.Load(), 1, 1);
  for (const Register::Bits mode : {plain, towardZero, plain | flushing}) {
    for (const ResultCode code : {ResultCodes::Ok, ResultCodes::Fail}) {
      answer = code;
      float block[2] = {};
      Register::Write(mode);
      const std::string outcome = Outcome([&] { core.EvaluateWindow(block, block); });
      const Register::Bits after = Register::Read();
      Register::Write(before);
      EXPECT_EQ(outcome, code ? "0x80004005" : "ok");
      EXPECT_EQ(seen, mode | flushing) << std::hex << mode;
      EXPECT_EQ(after, mode) << std::hex << mode;
    }
  }
}

TEST(Kalvrin, GainsHaveTheirRange) {
  FakeRuntime runtime(TestSupport::MakeFakeAudioModel(2, {0.5F}));
  Kalvrin core(runtime.Shared(), runtime.Load(), 1, 1);
  const char* const range = "Linear gain out of range";
  const struct {
    float gain;
    bool masterTakes;
    const char* classOutcome;
  } rows[] = {{0, true, "ok"},          {-0.0F, true, "ok"}, {1e30F, true, "ok"},
              {Infinity, true, "ok"},   {NaN, false, "ok"},  {-1e-30F, false, range},
              {-Infinity, false, range}};
  for (const auto& row : rows) {
    EXPECT_EQ(core.SetMasterGain(row.gain), row.masterTakes) << row.gain;
    for (const auto* name : {u"Class0", u"rest"}) {
      EXPECT_EQ(Outcome([&] { EXPECT_TRUE(core.SetAudioClassGain(name, row.gain)); }),
                row.classOutcome)
          << row.gain;
    }
    EXPECT_FALSE(core.SetAudioClassGain(u"Class1", row.gain)) << row.gain;
    EXPECT_FALSE(core.SetAudioClassGain(nullptr, row.gain)) << row.gain;
  }
}

TEST(Kalvrin, TheFirstClassOfANameIsTheOneThatIsSet) {
  // class k gives gain k of 1, 10, 100 times the input; Rest is what is left
  const struct {
    const char* name;
    std::u16string names;
    const char16_t* set;  ///< to 3, after ResetGains
    float expected;       ///< output for an input of 1
  } rows[] = {
      {"first of two", u"[\"S\",\"s\",\"M\"]", u"S", 1 + 2 * 1 - 10},
      {"second of two stays at 0", u"[\"S\",\"M\",\"m\"]", u"M", 1 + 2 * 10 - 100},
      {"a class called Rest hides the remainder", u"[\"rest\",\"S\",\"M\"]", u"Rest", 1 + 2 * 1},
      {"remainder", u"[\"A\",\"B\",\"C\"]", u"rEST", 3 - 2 * 111},
      {"a name with a zero inside ends there", u"[\"A\\u0000x\",\"B\",\"C\"]", u"a", 1 + 2 * 1},
  };
  for (const auto& row : rows) {
    FakeModel model = TestSupport::MakeFakeAudioModel(2, {1, 10, 100});
    model.metadata = {{u"AudioClassNames", row.names}};
    FakeRuntime runtime(model);
    Kalvrin core(runtime.Shared(), runtime.Load(), 1, 1);
    core.ResetGains();
    EXPECT_TRUE(core.SetAudioClassGain(row.set, 3.0F)) << row.name;
    float block[2] = {1, 1};
    core.EvaluateWindow(block, block);
    EXPECT_EQ(block[0], row.expected) << row.name;
  }
}

TEST(AudioClassSet, ChecksItsIds) {
  SingleAudioClass left(u"Left"), right(u"Right");
  ConcatenatedAudioClassSet both({&left, &right});
  AudioClassSet* const sets[] = {&left, &both};
  for (AudioClassSet* set : sets) {
    for (const std::uint32_t id : {0U, set->GetCount() - 1, set->GetCount(), ~0U}) {
      const char* const outcome = id < set->GetCount() ? "ok" : "Audio class ID out of range";
      EXPECT_EQ(Outcome([&] { (void)set->GetName(id); }), outcome) << id;
      EXPECT_EQ(Outcome([&] { (void)set->GetGain(id); }), outcome) << id;
      EXPECT_EQ(Outcome([&] { set->SetGain(id, 0.5F); }), outcome) << id;
    }
  }
  both.SetGain(1, 0.25F);
  EXPECT_EQ(right.GetGain(0), 0.25F);
  EXPECT_EQ(left.GetGain(0), 0.5F);
  EXPECT_EQ(both.GetName(1), right.GetName(0));
}

}  // namespace
