// The library as a host has it: libkalvrin.so with the real engine beside it.

#include "kalvrin/stream_processor.h"

#include "stream/compared_stream.h"
#include "stream/engine_models.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <thread>
#include <utility>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::LatencyFrames;
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

struct Step {
  std::uint64_t frames;
  std::int32_t continuation = 1;
  std::uint64_t times = 1;
};

struct Pattern {
  const char* name;
  StreamSizes sizes;
  std::vector<Step> steps;
};

std::vector<Pattern> FixedPatterns() {
  const StreamSizes divides = {.hop = 8, .sequence = 4, .channels = 2, .block = 8};
  const StreamSizes whole = {.hop = 8, .sequence = 4, .channels = 2, .block = 32};
  const StreamSizes straddles = {.hop = 8, .sequence = 4, .channels = 3, .block = 13};
  const StreamSizes beyond = {.hop = 4, .sequence = 2, .channels = 2, .block = 29};
  const StreamSizes single = {.hop = 6, .sequence = 1, .channels = 1, .block = 6};
  return {
      {"block divides the ring", divides, {{8, 0}, {8, 1, 20}}},
      {"any continuation but 0 runs on", divides, {{8, 5}, {8, -1, 7}, {8, 1, 7}}},
      {"block is the ring", whole, {{32, 1, 6}}},
      {"block straddles the ring's end", straddles, {{13, 1, 25}}},
      {"one window per evaluation", single, {{6, 1, 9}}},
      {"block longer than the ring", beyond, {{29, 1, 9}, {3, 1, 5}, {29, 1, 2}}},
      {"short blocks without prefill stay gapless", straddles, {{13}, {1, 1, 40}, {7, 1, 9}, {13}}},
      {"short blocks eat the lead", divides, {{8, 1, 5}, {3, 1, 9}, {8, 1, 9}, {8, 0}, {8, 1, 9}}},
      {"a single short block", divides, {{8, 1, 3}, {5}, {8, 1, 8}}},
      {"oversized blocks are cut", divides, {{8}, {20, 1, 9}, {1000}, {8, 1, 5}}},
      {"empty blocks", divides, {{0, 0}, {8, 1, 2}, {0}, {8, 1, 2}, {0, 0}, {8, 1, 9}}},
      {"restart at once", divides, {{8, 0}, {8, 0}, {8, 0}, {8, 1, 12}}},
      {"restart in mid-ring", divides, {{8, 1, 6}, {8, 0}, {8, 1, 3}, {8, 0}, {8, 1, 12}}},
      {"restart in mid-block", straddles, {{13, 1, 4}, {6, 0}, {13, 1, 6}, {13, 0}, {13, 1, 6}}},
  };
}

TEST(WholeStream, LatencyIsMetToTheFrame) {
  const struct {
    std::uint64_t hop, sequence, block, lookahead, latency;
  } rows[] = {
      {256, 4, 128, 0, 1152},  {256, 4, 256, 0, 1024},  {256, 4, 512, 0, 768},
      {256, 4, 300, 0, 1280},  {256, 4, 1024, 0, 1280}, {256, 4, 256, 2, 1536},
      {256, 4, 1, 0, 1279},    {256, 1, 256, 0, 512},   {256, 1, 128, 0, 384},
      {256, 4, 2000, 0, 1280}, {240, 3, 240, 1, 960},   {240, 3, 480, 5, 2160},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(LatencyFrames(2 * row.hop, row.lookahead, row.sequence, row.block), row.latency);
    for (const bool isSpectral : {false, true}) {
      const StreamSizes sizes = {row.hop, row.sequence, 2, row.lookahead, row.block, isSpectral};
      for (const std::uint64_t at : {std::uint64_t{0}, row.hop * row.sequence + 17}) {
        const Stream stream = MakePassThrough(sizes);
        ASSERT_TRUE(stream) << sizes.Text();
        stream->ResetGains();
        if (at == 0) stream->SetAudioClassGain(u"Rest", 0.0f);
        const std::uint64_t impulse = at + row.latency;
        for (std::uint64_t start = 0; start <= impulse + row.hop; start += row.block) {
          HostBlock block(sizes.channels, row.block, 0.0f);
          if (at >= start && at < start + row.block) block.samples[1][at - start] = 1.0f;
          stream->ProcessBlock(block.pointers.data(), block.pointers.data(), row.block, 1);
          for (std::uint64_t i = 0; i < row.block; ++i) {
            ASSERT_EQ(block.samples[0][i], 0.0f) << sizes.Text() << "; other channel";
            ASSERT_NEAR(block.samples[1][i], start + i == impulse ? 1.0f : 0.0f, Tolerance)
                << sizes.Text() << "; impulse at " << at << ", output " << start + i;
          }
        }
      }
    }
  }
}

TEST(WholeStream, BlocksOfAnyRhythmGiveTheDelayedInput) {
  std::vector<Pattern> patterns;
  for (const std::uint64_t lookahead : {0, 2, 5}) {
    for (const bool isSpectral : {false, true}) {
      for (Pattern pattern : FixedPatterns()) {
        pattern.sizes.lookahead = lookahead;
        pattern.sizes.isSpectral = isSpectral;
        patterns.push_back(std::move(pattern));
      }
    }
  }
  std::mt19937_64 generator(TestSeed());
  unsigned turn = 0;
  for (const Pattern& pattern : patterns) {
    SCOPED_TRACE(pattern.name);
    const bool inPlace = turn % 2 == 1;
    const bool fromModel = turn % 3 != 2;
    ++turn;
    ComparedStream compared(MakePassThrough, pattern.sizes, generator(), fromModel);
    for (const Step& step : pattern.steps)
      for (std::uint64_t i = 0; i < step.times; ++i)
        ASSERT_NO_FATAL_FAILURE(compared.Process(step.frames, step.continuation, inPlace));
  }
}

/// The model reverses its windows in time, so that each of the two windows is heard by itself.
TEST(WholeStream, WindowsOfAModelOnSamplesAreAsDeclared) {
  const std::optional<DeclaredWindow> rows[] = {{},
                                                DeclaredWindow{"hann", Hann},
                                                DeclaredWindow{"vorbis", Vorbis, 50},
                                                DeclaredWindow{"rectangular", Rectangular, 32},
                                                DeclaredWindow{nullptr, Hamming, 0, HannByHamming}};
  for (const auto& window : rows) {
    const StreamSizes sizes = {32, 2, 2, 0, 32, false, window};
    std::vector<std::int64_t> backwards(2 * sizes.hop);
    std::iota(backwards.rbegin(), backwards.rend(), 0);
    const auto W = static_cast<std::int64_t>(backwards.size());
    ModelBuilder model;
    model.Input("input", Element::Float, {"C", "T", W})
        .Output("output", Element::Float, {"C", "T", W})
        .Int64s("backwards", {W}, backwards)
        .Node("Gather", {"input", "backwards"}, {"output"}, {{"axis", 2}});
    if (window) model.Metadata("WindowShape", window->Json(backwards.size()));
    const auto make = [&](const StreamSizes&) {
      return Create(model.Build(), sizes.sequence, sizes.channels, sizes.block);
    };
    ComparedStream compared(make, sizes, TestSeed(), true);
    compared.SetScale(2);
    compared.Reference().SetRule([](std::size_t, Planar windows) {
      for (Samples& samples : windows)
        std::ranges::reverse(samples);
      return windows;
    });
    for (int i = 0; i < 20; ++i)
      ASSERT_NO_FATAL_FAILURE(compared.Process(sizes.block, 1));
  }
}

/// From the value a to b, over the first hop of an evaluation: a + (b - a) sin^2(pi n / W).
TEST(WholeStream, GainsFadeOverOneHopAlongTheWindow) {
  for (const bool isSpectral : {false, true}) {
    const StreamSizes sizes = {.hop = 64, .sequence = 2, .block = 128, .isSpectral = isSpectral};
    const Stream stream = MakePassThrough(sizes);
    stream->ResetGains();
    for (int i = 0; i < 4; ++i)
      Output(*stream, 1, 128, 1.0f);
    const struct {
      const char16_t* name;
      float gain;
      double from, to;
    } steps[] = {{u"Rest", 0.5f, 1, 1}, {u"Extracted", 0.25f, 1, 0.25}, {nullptr, 2, 0.25, 0.5}};
    for (const auto& step : steps) {
      step.name ? stream->SetAudioClassGain(step.name, step.gain)
                : stream->SetMasterGain(step.gain);
      const auto output = Output(*stream, 1, 128, 1.0f);
      for (std::uint64_t n = 0; n < 128; ++n)
        ASSERT_NEAR(output[n], step.from + (step.to - step.from) * (n < 64 ? Hann(n, 128) : 1),
                    2 * Tolerance)
            << sizes.Text() << ", to " << step.to << " at " << n;
    }
  }
}

TEST(WholeStream, FailedEvaluationReachesTheHostAndTheStreamGoesOn) {
  for (const std::uint64_t block : {8, 3}) {
    const StreamSizes sizes = {.hop = 4, .sequence = 4, .channels = 1, .block = block};
    AudioModelOptions options = PassThroughModel(sizes);
    options.failsOnLevel = true;
    const auto make = [&](const StreamSizes&) { return Create(options, sizes); };
    ComparedStream compared(make, sizes, TestSeed(), true);
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
      {"2^40 channels", good, 2, large},
      {"2^40 frames a block", good, 2, 1, large},
      {"frames times channels wraps to 0", good, 2, 2, top},
      {"products that wrap to 1", good, (top - 1) / 2 * 2 + 1, top / 4 + 1, top | 1},
      {"another input name", MakeAudioModel({.inputName = "audio"})},
      {"fixed sequence", MakeAudioModel({.inputShape = Dimensions{"C", 5, 8}})},
      {"fixed channels", MakeAudioModel({.inputShape = Dimensions{2, "T", 8}})},
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

TEST(WholeStream, AChangeThatTheEngineRefusesLosesNothing) {
  const StreamSizes sizes = {.hop = 4, .sequence = 2, .channels = 1, .block = 8};
  const AudioModelOptions model = {.states = {{.isHeard = true}}, .failsAtOneWindow = true};
  const Stream changed = Create(model, sizes), left = Create(model, sizes);
  ASSERT_TRUE(changed && left);
  for (StreamProcessor* stream : {changed.get(), left.get()}) {
    stream->ResetGains();
    stream->SetAudioClassGain(u"Rest", 0);
  }
  for (int i = 0; i < 12; ++i) {
    if (i % 3 == 2) changed->SetSequenceSize(1);
    const float level = 0.1F * static_cast<float>(i);
    const auto output = Output(*changed, 1, 8, level);
    EXPECT_EQ(output, Output(*left, 1, 8, level)) << i;
    EXPECT_GE(output.back(), static_cast<float>(i - 2)) << "the state is not heard";
  }
  changed->SetSequenceSize(3);
  EXPECT_EQ(Output(*changed, 1, 8, 1, 0).back(), 0) << "a change that the engine takes";
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
