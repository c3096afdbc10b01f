// The library as a host has it: libkalvrin.so with the real engine beside it.

#include "kalvrin/stream_processor.h"

#include "stream/engine_models.h"
#include "stream/stream_checks.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <exception>
#include <memory>
#include <random>
#include <thread>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::StreamProcessor;
using Stream = std::unique_ptr<StreamProcessor>;

Stream Create(const std::string& model, std::uint64_t sequenceSize, std::uint64_t channelCount,
              std::uint64_t blockFrames) {
  return Stream(
      CreateStreamProcessor(model.data(), model.size(), sequenceSize, channelCount, blockFrames));
}

Stream Create(const AudioModelOptions& options, const StreamSizes& sizes) {
  return Create(MakeAudioModel(options), sizes.sequence, sizes.channels, sizes.block);
}

Stream MakePassThrough(const StreamSizes& sizes) {
  return Create(PassThroughModel(sizes), sizes);
}

/// A stream over another model than the plain one, for comparison.
StreamMaker Over(const AudioModelOptions& options) {
  return [options](const StreamSizes& sizes) { return Create(options, sizes); };
}

/// `frames` of `channels` channels, all of this value, in and out.
std::vector<float> Output(StreamProcessor& stream, std::uint64_t channels, std::uint64_t frames,
                          float value, std::int32_t continuation = 1) {
  std::vector<float> samples(channels * frames, value);
  std::vector<float*> pointers;
  for (std::uint64_t c = 0; c < channels; ++c)
    pointers.push_back(samples.data() + c * frames);
  stream.ProcessBlock(pointers.data(), pointers.data(), frames, continuation);
  return samples;
}

TEST(WholeStream, LatencyIsMetToTheFrame) {
  CheckLatencies(MakePassThrough);
}

TEST(WholeStream, BlocksOfAnyRhythmGiveTheDelayedInput) {
  CheckBlockPatterns(MakePassThrough);
}

TEST(WholeStream, SizesChangeAtRunTime) {
  CheckSizeChanges(MakePassThrough);
}

TEST(WholeStream, UnityGivesTheDelayedInputWhateverTheModelGives) {
  const std::string classes = R"(["Speech","Music","Noise"])";
  const struct {
    const char* name;
    AudioModelOptions options;
  } rows[] = {
      {"loud classes",
       {.classGains = {1e30f, -3e37f, 7.0f}, .metadata = {{"AudioClassNames", classes}}}},
      {"a recurrent model", {.body = AudioModelOptions::Body::Gru}},
      {"a counting state", {.states = {{.isHeard = true}}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const StreamSizes sizes = {.hop = 4, .sequence = 3, .channels = 2, .block = 4};
    ComparedStream compared(Over(row.options), sizes, TestSeed());
    for (int i = 0; i < 30; ++i)
      ASSERT_NO_FATAL_FAILURE(compared.Process(4, 1));
  }
}

/// The factor of each channel is g m where it is bound to a class of gain g, else
/// r m + sum over k of a(k) (g(k) m - r m), for a model whose class k is a(k) times its input.
TEST(WholeStream, GainsMixClassesAndRemainder) {
  std::mt19937_64 generator(TestSeed());
  std::uniform_real_distribution<float> gain(0.0f, 2.0f);
  const std::u16string names[] = {u"Speech", u"Music", u"Noise", u"Rest"};
  for (int round = 0; round < 24; ++round) {
    const std::size_t classes = 1 + generator() % 3;
    StreamSizes sizes = {.hop = 6, .sequence = 2, .channels = 4, .block = 6};
    sizes.isSpectral = round % 2 == 1;
    AudioModelOptions options = PassThroughModel(sizes);
    options.classGains.clear();
    std::string quoted;
    for (std::size_t k = 0; k < classes; ++k) {
      options.classGains.push_back(gain(generator) - 1.0f);
      quoted += (k ? ",\"" : "\"") + std::string(names[k].begin(), names[k].end()) + '"';
    }
    options.metadata.emplace_back("AudioClassNames", "[" + quoted + "]");
    // Channel 0 is free, 1 and 2 bound to classes, 3 to the remainder.
    const std::size_t bound[] = {generator() % classes, generator() % classes};
    const auto name = [&](std::size_t k) { return std::string(names[k].begin(), names[k].end()); };
    options.metadata.emplace_back("ChannelToAudioClassBindings",
                                  "[[1,\"" + name(bound[0]) + "\"],[2,\"" + name(bound[1]) +
                                      "\"],[3,\"rest\"],[9,\"Speech\"]]");
    ComparedStream compared(Over(options), sizes, generator());
    compared.SetScale(16.0);
    for (int change = 0; change < 5; ++change) {
      const float master = gain(generator);
      const float rest = gain(generator);
      std::vector<float> gains(classes);
      EXPECT_TRUE(compared.Stream().SetMasterGain(master));
      EXPECT_TRUE(compared.Stream().SetAudioClassGain(u"REST", rest));
      double mixed = double{rest} * master;
      for (std::size_t k = 0; k < classes; ++k) {
        gains[k] = gain(generator);
        EXPECT_TRUE(compared.Stream().SetAudioClassGain(names[k].c_str(), gains[k]));
        mixed += options.classGains[k] * (double{gains[k]} * master - double{rest} * master);
      }
      compared.Reference().SetFactors({mixed, double{gains[bound[0]]} * master,
                                       double{gains[bound[1]]} * master, double{rest} * master});
      for (int i = 0; i < 7; ++i)
        ASSERT_NO_FATAL_FAILURE(compared.Process(6, 1)) << classes << " classes";
    }
  }
}

TEST(WholeStream, IsMuteUntilGainsAreSetAndRefusesBadOnes) {
  const StreamSizes sizes = {.hop = 4, .sequence = 1, .channels = 1, .block = 4};
  const Stream stream = MakePassThrough(sizes);
  ASSERT_TRUE(stream);
  const auto last = [&] {
    for (int i = 0; i < 4; ++i)
      Output(*stream, 1, 4, 0.5f);
    return Output(*stream, 1, 4, 0.5f)[3];
  };
  EXPECT_EQ(last(), 0.0f);
  EXPECT_TRUE(stream->SetMasterGain(1.0f));
  EXPECT_EQ(last(), 0.0f) << "class gains are still 0";
  stream->ResetGains();
  EXPECT_NEAR(last(), 0.5f, Tolerance);
  EXPECT_FALSE(stream->SetMasterGain(-0.1f));
  EXPECT_FALSE(stream->SetMasterGain(std::nanf("")));
  EXPECT_FALSE(stream->SetAudioClassGain(nullptr, 0.0f));
  EXPECT_FALSE(stream->SetAudioClassGain(u"Nobody", -1.0f));
  EXPECT_THROW(stream->SetAudioClassGain(u"eXtracted", -1.0f), std::exception);
  EXPECT_NEAR(last(), 0.5f, Tolerance) << "refused gains change nothing";
  EXPECT_TRUE(stream->SetMasterGain(0.0f));
  EXPECT_EQ(last(), 0.0f);
}

/// A counter in the model adds the number of the evaluation to its output.
TEST(WholeStream, StatesAdvanceOncePerEvaluationAndRestartWithTheSizes) {
  const StreamSizes sizes = {.hop = 4, .sequence = 3, .channels = 1, .block = 12};
  for (const Element element :
       {Element::Float, Element::Int64, Element::Float16, Element::Double}) {
    AudioModelOptions options = PassThroughModel(sizes);
    options.states = {{.element = element, .isHeard = true}};
    const Stream stream = Create(options, sizes);
    ASSERT_TRUE(stream);
    stream->ResetGains();
    stream->SetAudioClassGain(u"Rest", 0.0f);
    // The last frame of an evaluation is only touched by its own windows; the first call has none.
    const auto run = [&](int from, int to) {
      for (int count = from; count <= to; ++count)
        EXPECT_NEAR(Output(*stream, 1, 12, 0.0f).back(), count, 1e-5) << static_cast<int>(element);
    };
    EXPECT_EQ(Output(*stream, 1, 12, 0.0f).back(), 0.0f);
    run(0, 5);
    stream->SetMasterGain(0.0f);
    run(0, 0);
    stream->SetMasterGain(1.0f);
    run(7, 9);
    stream->SetSequenceSize(3);
    EXPECT_EQ(Output(*stream, 1, 12, 0.0f, 0).back(), 0.0f);
    run(0, 4);
  }
}

/// The model's own state holds a whole evaluation of audio back.
TEST(WholeStream, StateOfAudioDelaysByOneEvaluation) {
  const StreamSizes sizes = {.hop = 4, .sequence = 3, .channels = 2, .block = 5};
  AudioModelOptions options = PassThroughModel(sizes);
  options.body = AudioModelOptions::Body::Delay;
  options.delayWindows = 3;
  const Stream stream = Create(options, sizes);
  ASSERT_TRUE(stream);
  stream->ResetGains();
  stream->SetAudioClassGain(u"Rest", 0.0f);
  const int latency = 12 + 4 + 12;
  for (int start = 0; start < 60; start += 5) {
    const auto out = Output(*stream, 2, 5, start == 0 ? 1.0f : 0.0f);
    for (int i = 0; i < 5; ++i)
      EXPECT_NEAR(out[static_cast<std::size_t>(i)],
                  start + i >= latency && start + i < latency + 5 ? 1.0f : 0.0f, Tolerance)
          << start + i;
  }
}

TEST(WholeStream, FailedEvaluationReachesTheHostAndTheStreamGoesOn) {
  for (const std::uint64_t block : {8, 3}) {
    const StreamSizes sizes = {.hop = 4, .sequence = 4, .channels = 1, .block = block};
    AudioModelOptions options = PassThroughModel(sizes);
    options.failsOnLevel = true;
    ComparedStream compared(Over(options), sizes, TestSeed(), true);
    compared.Reference().FailFrom(1.0);
    for (int i = 0; i < 9; ++i)
      ASSERT_NO_FATAL_FAILURE(compared.Process(block, 1));
    compared.SetSignal(1.5f);
    while (compared.Failures() < 3)
      ASSERT_NO_FATAL_FAILURE(compared.Process(block, 1));
    // The ring still holds what the model does not take, and the restart overwrites it. The hop
    // before it is part of the past by now and fails the evaluation once more.
    compared.SetSignal(std::nullopt);
    for (int i = 0; i < 20; ++i)
      ASSERT_NO_FATAL_FAILURE(compared.Process(block, i == 0 ? 0 : 1)) << i;
    EXPECT_EQ(compared.Failures(), 4);
  }
}

TEST(WholeStream, RefusalsGiveNullAndTheNextStreamWorks) {
  const StreamSizes sizes;
  const std::string good = MakeAudioModel(PassThroughModel(sizes));
  std::string noise(4096, '\0');
  std::mt19937_64 generator(TestSeed());
  for (char& byte : noise)
    byte = static_cast<char>(generator());
  const auto with = [&](auto change) {
    AudioModelOptions options = PassThroughModel(sizes);
    change(options);
    return MakeAudioModel(options);
  };
  const std::uint64_t large = std::uint64_t{1} << 40, top = std::uint64_t{1} << 63;
  const struct {
    const char* name;
    std::string model;
    std::uint64_t sequence = 2, channels = 1, block = 4;
  } rows[] = {
      {"empty", ""},
      {"text", "this is no model"},
      {"half a model", good.substr(0, good.size() / 2)},
      {"noise", noise},
      {"no channel", good, 2, 0},
      {"block of nothing", good, 2, 1, 0},
      {"2^40 windows", good, large},
      {"2^63 windows", good, top},
      {"2^40 channels", good, 2, large},
      {"2^63 channels", good, 2, top},
      {"2^40 frames a block", good, 2, 1, large},
      {"2^63 frames a block", good, 2, 1, top},
      {"products that wrap to 1", good, (top - 1) / 2 * 2 + 1, top / 4 + 1, top | 1},
      {"another input name", with([](auto& o) { o.inputName = "audio"; })},
      {"metadata that is no JSON", with([](auto& o) {
         o.metadata = {{"SampleRate", "16k"}};
       })},
      {"fixed sequence", with([](auto& o) {
         o.inputShape = {"C", 5, 8};
       })},
      {"fixed channels", with([](auto& o) {
         o.inputShape = {2, "T", 8};
       })},
      {"odd window", with([](auto& o) { o.features = 7; })},
      {"lookahead below 0", with([](auto& o) {
         o.metadata = {{"LookaheadNumBlocks", "-1"}};
       })},
      {"lookahead that the model lacks", with([](auto& o) {
         o.metadata = {{"LookaheadNumBlocks", "1"}};
         o.outputShape = {1, 1, 2, 8};
       })},
      {"fails at once", with([](auto& o) { o.failsFromEvaluation = 0; })},
  };
  EXPECT_EQ(CreateStreamProcessor(nullptr, good.size(), 2, 1, 4), nullptr);
  EXPECT_EQ(CreateStreamProcessor(good.data(), 0, 2, 1, 4), nullptr);
  EXPECT_EQ(CreateStreamProcessor(good.data(), std::uint64_t{1} << 32, 2, 1, 4), nullptr);
  for (const auto& row : rows)
    EXPECT_FALSE(Create(row.model, row.sequence, row.channels, row.block)) << row.name;
  EXPECT_TRUE(Create(good, 2, 1, 4));
  Stream lowBitsCount(
      CreateStreamProcessor(good.data(), good.size() + (std::uint64_t{5} << 32), 2, 1, 4));
  EXPECT_TRUE(lowBitsCount);
}

TEST(WholeStream, ModelBytesMayGoAfterCreation) {
  ComparedStream compared(
      [](const StreamSizes& sizes) {
        std::string model = MakeAudioModel(PassThroughModel(sizes));
        Stream stream = Create(model, sizes.sequence, sizes.channels, sizes.block);
        std::memset(model.data(), 0xAB, model.size());
        return stream;
      },
      {.hop = 8, .sequence = 2, .channels = 2, .block = 8, .isSpectral = true}, TestSeed(), true);
  compared.SetSequenceSize(3);
  for (int i = 0; i < 12; ++i)
    ASSERT_NO_FATAL_FAILURE(compared.Process(8, i == 0 ? 0 : 1));
}

TEST(WholeStream, SequenceSizeZeroTakesTheModelsOwn) {
  const struct {
    const char* baseline;
    std::uint64_t sequence;
  } rows[] = {{"", 4}, {"0", 4}, {"3", 3}, {"1", 1}, {"\"7\"", 4}};
  for (const auto& row : rows) {
    const StreamSizes sizes = {.hop = 4, .sequence = row.sequence, .channels = 1, .block = 3};
    AudioModelOptions options = PassThroughModel(sizes);
    if (*row.baseline) options.metadata.emplace_back("BaselineSequenceSize", row.baseline);
    const auto make = [&](const StreamSizes&) { return Create(MakeAudioModel(options), 0, 1, 3); };
    ComparedStream compared(make, sizes, TestSeed());
    for (int i = 0; i < 20; ++i)
      ASSERT_NO_FATAL_FAILURE(compared.Process(3, 1)) << "baseline " << row.baseline;
  }
}

TEST(WholeStream, SampleRateIsWhatTheModelSays) {
  const struct {
    const char* text;
    std::int32_t rate;
  } rows[] = {{"16000", 16000}, {"48000.5", 48000}, {"\"44100\"", 0}, {nullptr, 0}};
  for (const auto& row : rows) {
    AudioModelOptions options;
    if (row.text) options.metadata = {{"SampleRate", row.text}};
    const Stream stream = Create(options, {});
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->GetSampleRate(), row.rate) << (row.text ? row.text : "no key");
  }
}

TEST(WholeStream, RefusedSizesLeaveTheStreamRunning) {
  const StreamSizes sizes = {.hop = 4, .sequence = 3, .channels = 2, .lookahead = 1, .block = 5};
  AudioModelOptions options = PassThroughModel(sizes);
  options.inputShape = {2, 4, 8};
  options.outputShape = {1, 2, 3, 8};
  ComparedStream compared(Over(options), sizes, TestSeed(), true);
  for (const std::uint64_t size : {1, 2, 4, 1000}) {
    for (int i = 0; i < 4; ++i)
      ASSERT_NO_FATAL_FAILURE(compared.Process(5, 1)) << size;
    compared.Stream().SetSequenceSize(size);
    compared.Stream().SetChannelCount(size == 2 ? 3 : size);
  }
}

TEST(WholeStream, GainsChangeFromAnotherThreadWhileItRuns) {
  const StreamSizes sizes = {.hop = 16, .sequence = 2, .channels = 2, .block = 16};
  const Stream stream = MakePassThrough(sizes);
  ASSERT_TRUE(stream);
  std::atomic<bool> stop = false;
  std::thread operatorOfGains([&] {
    for (unsigned i = 0; !stop; ++i) {
      stream->SetMasterGain(static_cast<float>(i % 3) * 0.5f);
      stream->SetAudioClassGain(u"Rest", static_cast<float>(i % 2));
      stream->SetAudioClassGain(u"Extracted", static_cast<float>(i % 5) * 0.25f);
      if (i % 7 == 0) stream->ResetGains();
    }
  });
  for (int i = 0; i < 2000; ++i)
    for (const float sample : Output(*stream, 2, 16, 1.0f))
      ASSERT_TRUE(sample >= -2.0f && sample <= 2.0f) << sample;
  stop = true;
  operatorOfGains.join();
  stream->ResetGains();
  for (int i = 0; i < 8; ++i)
    Output(*stream, 2, 16, 1.0f);
  EXPECT_NEAR(Output(*stream, 2, 16, 1.0f).back(), 1.0f, Tolerance);
}

}  // namespace
