// EvaluateWindow beside a model of the mixing rules in double.

#include "core/kalvrin.h"
#include "support/fake_platform.h"
#include "support/outcome.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <xmmintrin.h>

#include <algorithm>
#include <deque>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace Orvik::Tesmo;
using namespace Orvik::Tesmo::Dnn;
using TestSupport::FakeEvaluation;
using TestSupport::FakeModel;
using TestSupport::FakeRuntime;
using TestSupport::Outcome;

/// A model of K classes with one state, the number of evaluations so far. In samples,
///   class k of window s = present[k] x[s] + future[k] x[s + L] + counted[k] n
/// where n is the state before the evaluation. On spectra the same, by the bins, with rubbish where
/// a real signal has no imaginary part.
struct ModelRule {
  std::size_t windowLength, lookahead;
  bool isSpectral;
  std::vector<float> present, future, counted;

  std::size_t ClassCount() const { return present.size(); }

  FakeModel Make(const std::u16string& bindings) const {
    FakeModel model = TestSupport::MakeFakeAudioModel(static_cast<std::int64_t>(windowLength),
                                                      present, isSpectral);
    model.inputs.push_back({u"count", {-1}});
    model.outputs.push_back({u"newCount", {-1}});
    model.metadata.push_back({u"LookaheadNumBlocks", {static_cast<char16_t>(u'0' + lookahead)}});
    model.metadata.push_back({u"ChannelToAudioClassBindings", bindings});
    model.evaluate = [rule = *this](const FakeEvaluation& run) { return rule.Evaluate(run); };
    return model;
  }

  ResultCode Evaluate(const FakeEvaluation& run) const {
    const auto channels = static_cast<std::size_t>(run.inputs[0].shape[0]);
    const std::size_t stride = isSpectral ? windowLength + 2 : windowLength;
    const std::size_t windows = run.inputs[0].count / stride / channels - lookahead;
    const float constant = isSpectral ? static_cast<float>(windowLength) : 1.0F;
    float* out = run.outputs[0].Floats();
    for (std::size_t k = 0; k < ClassCount(); ++k) {
      for (std::size_t c = 0; c < channels; ++c) {
        run.outputs[1].Floats()[c] = run.inputs[1].Floats()[c] + 1.0F;
        for (std::size_t s = 0; s < windows; ++s, out += stride) {
          const float* in = run.inputs[0].Floats() + (c * (windows + lookahead) + s) * stride;
          const float count = counted[k] * run.inputs[1].Floats()[c] * constant;
          for (std::size_t i = 0; i < stride; ++i) {
            out[i] = present[k] * in[i] + future[k] * in[i + lookahead * stride];
            out[i] += !isSpectral || i == 0 ? count : 0.0F;
          }
          if (isSpectral) out[1] = out[stride - 1] = 77.0F;
        }
      }
    }
    return ResultCodes::Ok;
  }
};

/// The mixing rules on one stream, in double.
struct Reference {
  const ModelRule& rule;
  std::size_t sequenceSize, channelCount;
  double master = 0, rest = 0;
  std::vector<double> gains;                ///< by class
  std::vector<const double*> bound;         ///< by channel; null: a mixture
  std::vector<std::deque<double>> history;  ///< by channel: the lookahead windows kept
  double evaluations = 0;

  void Restart(std::size_t S, std::size_t C) {
    sequenceSize = S;
    channelCount = C;
    evaluations = 0;
    history.assign(C, std::deque<double>(rule.lookahead * rule.windowLength, 0.0));
  }

  std::vector<double> Evaluate(const std::vector<float>& input) {
    std::vector<double> output(input.size());
    const std::size_t frames = rule.windowLength * sequenceSize;
    for (std::size_t c = 0; c < channelCount; ++c) {
      auto& x = history[c];
      for (std::size_t i = 0; i < frames; ++i)
        x.push_back(input[i * channelCount + c]);
      for (std::size_t i = 0; i < frames; ++i) {
        double& y = output[i * channelCount + c];
        if (bound[c]) {
          y = x[i] * *bound[c] * master;
          continue;
        }
        y = rest * master * x[i];
        for (std::size_t k = 0; k < gains.size(); ++k) {
          const double e = rule.present[k] * x[i] + rule.counted[k] * evaluations +
                           rule.future[k] * x[i + rule.lookahead * rule.windowLength];
          y += (gains[k] * master - rest * master) * e;
        }
      }
      x.erase(x.begin(), x.begin() + static_cast<std::ptrdiff_t>(frames));
    }
    ++evaluations;
    return output;
  }
};

std::vector<float> RandomSamples(std::size_t count, std::mt19937_64& random) {
  std::vector<float> samples(count);
  for (float& sample : samples)
    sample = std::uniform_real_distribution<float>(-1, 1)(random);
  return samples;
}

/// Draws a model and a stream, and runs a few evaluations with changes of gains and sizes between.
void CompareOneStream(std::uint64_t seed) {
  std::mt19937_64 random(seed);
  const auto upTo = [&](std::size_t least, std::size_t most) {
    return std::uniform_int_distribution<std::size_t>(least, most)(random);
  };
  ModelRule rule{2 * upTo(1, 6), upTo(0, 5), upTo(0, 1) == 1, {}, {}, {}};
  const std::size_t K = upTo(1, 3);
  rule.present = RandomSamples(K, random);
  rule.future = RandomSamples(K, random);
  rule.counted = RandomSamples(K, random);

  constexpr std::size_t maxChannels = 4;
  Reference reference{rule, 0, 0, 0, 0, std::vector<double>(K), {}, {}};
  reference.bound.resize(maxChannels);
  const std::u16string names[] = {u"class0", u"Class1", u"cLASS2", u"rEST", u"nobody"};
  std::u16string bindings;
  for (std::size_t n = upTo(0, 2 * maxChannels); n > 0; --n) {  // a later one of a channel counts
    const std::size_t c = upTo(0, maxChannels - 1), choice = upTo(0, std::size(names) - 1);
    bindings += (bindings.empty() ? u"[" : u",[") +
                std::u16string(1, static_cast<char16_t>(u'0' + c)) + u",\"" + names[choice] +
                u"\"]";
    reference.bound[c] = choice < K    ? &reference.gains[choice]
                         : choice == 3 ? &reference.rest
                                       : nullptr;
  }

  FakeRuntime runtime(rule.Make(u"[" + bindings + u"]"));
  std::size_t S = upTo(1, 4), C = upTo(1, maxChannels);
  Kalvrin core(runtime, "model", 5, S, C);
  reference.Restart(S, C);
  for (int step = 0; step < 12; ++step) {
    const auto gain = static_cast<float>(upTo(0, 3)) * 0.5F;
    switch (upTo(0, 8)) {
    case 0:
      ASSERT_TRUE(core.SetMasterGain(gain));
      reference.master = gain;
      break;
    case 1:
      ASSERT_TRUE(core.SetAudioClassGain(u"REST", gain));
      reference.rest = gain;
      break;
    case 2:
    case 3: {
      const std::size_t k = upTo(0, K - 1);
      ASSERT_TRUE(core.SetAudioClassGain(names[k].c_str(), gain));
      reference.gains[k] = gain;
      break;
    }
    case 4:
      core.ResetGains();
      reference.master = reference.rest = 1;
      std::fill(reference.gains.begin(), reference.gains.end(), 1.0);
      break;
    case 5:
      S = upTo(1, 4);
      ASSERT_TRUE(core.SetSequenceSize(S));
      reference.Restart(S, C);
      break;
    case 6:
      C = upTo(1, maxChannels);
      ASSERT_TRUE(core.SetChannelCount(C));
      reference.Restart(S, C);
      break;
    default:
      break;
    }
    std::vector<float> block = RandomSamples(rule.windowLength * S * C, random);
    const std::vector<double> expected = reference.Evaluate(block);
    core.EvaluateWindow(block.data(), block.data());
    for (std::size_t i = 0; i < block.size(); ++i) {
      ASSERT_NEAR(block[i], expected[i], 1e-4)
          << "step " << step << ", float " << i << ", W " << rule.windowLength << ", S " << S
          << ", C " << C << ", K " << K << ", L " << rule.lookahead
          << (rule.isSpectral ? ", spectra" : "");
    }
  }
}

TEST(Evaluation, FollowsTheMixingRules) {
  const std::uint64_t seed = TestSupport::TestSeed();
  for (std::uint64_t i = 0; i < 300 && !HasFailure(); ++i)
    CompareOneStream(seed + i);
}

TEST(Evaluation, UnityGainsGiveTheDelayedInputToTheBit) {
  for (const bool isSpectral : {false, true}) {
    ModelRule rule{4, 1, isSpectral, {1e30F, -0.3F}, {1, 1}, {0, 1e20F}};
    FakeRuntime runtime(rule.Make(u"[]"));
    Kalvrin core(runtime, "model", 5, 1, 2);
    EXPECT_EQ(core.IsSpectral(), isSpectral ? 1 : 0);
    std::mt19937_64 random(1);
    const std::vector<float> blocks[] = {RandomSamples(8, random), RandomSamples(8, random)};
    std::vector<float> output(8, 7.0F);
    core.EvaluateWindow(blocks[0].data(), output.data());
    EXPECT_EQ(output, std::vector<float>(8, 0.0F)) << "a new core is mute";
    core.ResetGains();
    core.EvaluateWindow(blocks[1].data(), output.data());
    EXPECT_EQ(output, blocks[0]) << isSpectral;
    core.SetMasterGain(0.0F);
    core.EvaluateWindow(blocks[1].data(), output.data());
    EXPECT_EQ(output, std::vector<float>(8, 0.0F)) << isSpectral;
  }
}

TEST(Evaluation, FlushesDenormalsInTheModelOnly) {
  FakeModel model = TestSupport::MakeFakeAudioModel(2, {1});
  unsigned seen = 0;
  ResultCode answer = ResultCodes::Ok;
  model.evaluate = [&](const FakeEvaluation&) {
    seen = _mm_getcsr();
    _mm_setcsr(0x1F80 | 0x20);  // an engine that leaves something else behind
    return answer;
  };
  FakeRuntime runtime(model);
  Kalvrin core(runtime, "model", 5, 1, 1);
  const unsigned before = _mm_getcsr();
  for (const unsigned mode : {0x1F80U, 0x1F80U | 0x6000U, 0x1F80U | 0x8040U}) {
    for (const ResultCode code : {ResultCodes::Ok, ResultCodes::Fail}) {
      answer = code;
      float block[2] = {};
      _mm_setcsr(mode);
      const std::string outcome = Outcome([&] { core.EvaluateWindow(block, block); });
      const unsigned after = _mm_getcsr();
      _mm_setcsr(before);
      EXPECT_EQ(outcome, code ? "0x80004005" : "ok");
      EXPECT_EQ(seen, mode | 0x8040U) << std::hex << mode;
      EXPECT_EQ(after, mode) << std::hex << mode;
    }
  }
}

TEST(Evaluation, AFailedCallWritesNothingAndTheNextOneWorks) {
  ModelRule rule{2, 1, false, {0.5F}, {0}, {1}};
  const struct {
    const char* operation;
    std::size_t n;
    float kept;     ///< what the next call has for its lookahead window before its own
    float counted;  ///< evaluations that the model's state has counted by then
  } rows[] = {{"Acquire", 1, 1, 1}, {"Evaluate", 1, 1, 1}, {"Acquire", 2, 9, 2}};
  for (const auto& row : rows) {
    FakeRuntime runtime(rule.Make(u"[]"));
    Kalvrin core(runtime, "model", 5, 1, 1);
    core.ResetGains();
    core.SetAudioClassGain(u"Class0", 2.0F);
    float first[2] = {1, 1}, failing[2] = {9, 9}, output[2] = {5, 5}, next[2] = {3, 3};
    core.EvaluateWindow(first, first);
    runtime.FailCall(row.n, ResultCodes::AccessDenied, row.operation);
    EXPECT_EQ(Outcome([&] { core.EvaluateWindow(failing, output); }), "0x80070005");
    EXPECT_TRUE(runtime.StopFailing()) << row.operation;
    EXPECT_EQ(output[0], 5.0F) << row.operation;
    EXPECT_EQ(runtime.GetHeldTensors(), 0) << row.operation;
    core.EvaluateWindow(next, output);
    EXPECT_EQ(output[1], row.kept + 0.5F * row.kept + row.counted) << row.operation << row.n;
  }
}

}  // namespace
