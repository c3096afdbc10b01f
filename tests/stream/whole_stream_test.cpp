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
#include <utility>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::StreamProcessor;
using Stream = std::unique_ptr<StreamProcessor>;

/// The bytes of the model are gone when the stream comes.
Stream Create(std::string model, std::uint64_t sequenceSize, std::uint64_t channelCount,
              std::uint64_t blockFrames) {
  Stream stream(
      CreateStreamProcessor(model.data(), model.size(), sequenceSize, channelCount, blockFrames));
  std::memset(model.data(), 0xAB, model.size());
  return stream;
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
  const auto gain = [&] { return std::uniform_real_distribution<float>(0.0f, 2.0f)(generator); };
  for (const bool isSpectral : {false, true}) {
    const StreamSizes sizes = {
        .hop = 6, .sequence = 2, .channels = 4, .block = 6, .isSpectral = isSpectral};
    AudioModelOptions options = PassThroughModel(sizes);
    options.classGains = {gain() - 1.0f, gain() - 1.0f};
    options.metadata.emplace_back("AudioClassNames", R"(["Speech","Music"])");
    options.metadata.emplace_back("ChannelToAudioClassBindings",
                                  R"([[1,"Music"],[2,"speech"],[3,"rest"],[9,"Speech"]])");
    ComparedStream compared(Over(options), sizes, generator());
    compared.SetScale(16.0);
    for (int change = 0; change < 20; ++change) {
      const float master = gain(), rest = gain(), speech = gain(), music = gain();
      EXPECT_TRUE(compared.Stream().SetMasterGain(master));
      EXPECT_TRUE(compared.Stream().SetAudioClassGain(u"REST", rest));
      EXPECT_TRUE(compared.Stream().SetAudioClassGain(u"Speech", speech));
      EXPECT_TRUE(compared.Stream().SetAudioClassGain(u"Music", music));
      const double mixed = rest + options.classGains[0] * (double{speech} - rest) +
                           options.classGains[1] * (double{music} - rest);
      compared.Reference().SetFactors(
          {mixed * master, double{music} * master, double{speech} * master, double{rest} * master});
      for (int i = 0; i < 7; ++i)
        ASSERT_NO_FATAL_FAILURE(compared.Process(6, 1));
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
  const std::string good = MakeAudioModel();
  std::string noise(4096, '\0');
  std::mt19937_64 generator(TestSeed());
  for (char& byte : noise)
    byte = static_cast<char>(generator());
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
      {"frames times channels wraps to 0", good, 2, 2, top},
      {"products that wrap to 1", good, (top - 1) / 2 * 2 + 1, top / 4 + 1, top | 1},
      {"another input name", MakeAudioModel({.inputName = "audio"})},
      {"metadata that is no JSON", MakeAudioModel({.metadata = {{"SampleRate", "16k"}}})},
      {"fixed sequence", MakeAudioModel({.inputShape = Dimensions{"C", 5, 8}})},
      {"fixed channels", MakeAudioModel({.inputShape = Dimensions{2, "T", 8}})},
      {"odd window", MakeAudioModel({.features = 7})},
      {"lookahead below 0", MakeAudioModel({.metadata = {{"LookaheadNumBlocks", "-1"}}})},
      {"lookahead that the model lacks",
       MakeAudioModel(
           {.outputShape = Dimensions{1, 1, 2, 8}, .metadata = {{"LookaheadNumBlocks", "1"}}})},
      {"fails at once", MakeAudioModel({.failsFromEvaluation = 0})},
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

TEST(WholeStream, TheModelSaysItsSampleRateAndItsSequenceSize) {
  const struct {
    std::vector<std::pair<std::string, std::string>> metadata;
    std::uint64_t sequence;
    std::int32_t sampleRate;
  } rows[] = {{{}, 4, 0}, {{{"BaselineSequenceSize", "3"}, {"SampleRate", "16000"}}, 3, 16000}};
  for (const auto& row : rows) {
    const StreamSizes sizes = {.hop = 4, .sequence = row.sequence, .channels = 1, .block = 3};
    const std::string model = MakeAudioModel({.metadata = row.metadata});
    const auto make = [&](const StreamSizes&) { return Create(model, 0, 1, 3); };
    ComparedStream compared(make, sizes, TestSeed());
    EXPECT_EQ(compared.Stream().GetSampleRate(), row.sampleRate);
    for (int i = 0; i < 20; ++i)
      ASSERT_NO_FATAL_FAILURE(compared.Process(3, 1)) << "sequence size " << row.sequence;
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
