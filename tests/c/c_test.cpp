// The C interface against the library's own: the same samples, and in words what the library
// answers with null.

#include "kalvrin.h"

#include "kalvrin/stream_processor.h"
#include "support/audio_models.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace TestSupport;

struct Destroy {
  void operator()(kalvrin_stream* stream) const { kalvrin_destroy(stream); }
};
using Stream = std::unique_ptr<kalvrin_stream, Destroy>;

const AudioModelOptions TwoClasses = {.features = 16,
                                      .lookahead = 1,
                                      .classGains = {0.25F, 0.5F},
                                      .metadata = {{"AudioClassNames", R"(["Sprache","Töne"])"},
                                                   {"SampleRate", "16000"},
                                                   {"LookaheadNumBlocks", "1"}}};

struct Made {
  kalvrin_status status;
  std::string reason;
  Stream stream;
};

Made Make(const std::string& model, const kalvrin_request& request) {
  char reason[KALVRIN_REASON_SIZE] = "unset";
  kalvrin_stream* stream = nullptr;
  const kalvrin_status status =
      kalvrin_create(model.data(), model.size(), &request, reason, sizeof reason, &stream);
  if (stream) kalvrin_reset_gains(stream);
  return {status, reason, Stream(stream)};
}

TEST(CInterfaceTest, SizesAndNamesAreTheModels) {
  const Made made = Make(MakeAudioModel(TwoClasses), {3, 2, 4});
  ASSERT_EQ(made.status, KALVRIN_OK) << made.reason;
  EXPECT_EQ(made.reason, "");
  kalvrin_sizes sizes;
  ASSERT_EQ(kalvrin_get_sizes(made.stream.get(), &sizes), KALVRIN_OK);
  EXPECT_EQ(sizes.channels, 3u);
  EXPECT_EQ(sizes.window_frames, 16u);
  EXPECT_EQ(sizes.lookahead_windows, 1u);
  EXPECT_EQ(sizes.latency_frames, Orvik::Tesmo::LatencyFrames(16, 1, 2, 4));
  EXPECT_EQ(sizes.sample_rate_hz, 16000);
  std::vector<std::string> names;
  const char* name = nullptr;
  while (kalvrin_get_class_name(made.stream.get(), names.size(), &name) == KALVRIN_OK)
    names.emplace_back(name);
  EXPECT_EQ(names, (std::vector<std::string>{"Sprache", "Töne", "Rest"}));
}

/// Planar, interleaved and the library itself, with gains changed on the way and a restart.
TEST(CInterfaceTest, GivesTheSamplesOfTheLibrary) {
  constexpr std::size_t channels = 3, frames = 8;
  const std::string model = MakeAudioModel(TwoClasses);
  const Made planar = Make(model, {channels, 2, frames});
  const Made interleaved = Make(model, {channels, 2, frames});
  ASSERT_TRUE(planar.stream && interleaved.stream);
  std::unique_ptr<Orvik::Tesmo::StreamProcessor> reference;
  std::mt19937_64 random(TestSeed());
  std::uniform_real_distribution<float> level(-1, 1);

  for (int block = 0; block < 60; ++block) {
    if (block == 20) {
      for (const Made* made : {&planar, &interleaved}) {
        ASSERT_EQ(kalvrin_set_gain(made->stream.get(), "tÖNE", 1), KALVRIN_NOT_FOUND);
        ASSERT_EQ(kalvrin_set_gain(made->stream.get(), "TöNE", 3), KALVRIN_OK);
        ASSERT_EQ(kalvrin_set_master_gain(made->stream.get(), 0.5F), KALVRIN_OK);
      }
    }
    if (block == 40) {
      ASSERT_EQ(kalvrin_restart(planar.stream.get()), KALVRIN_OK);
      ASSERT_EQ(kalvrin_restart(interleaved.stream.get()), KALVRIN_OK);
    }
    if (block % 40 == 0) {
      reference.reset(CreateStreamProcessor(model.data(), model.size(), 2, channels, frames));
      reference->ResetGains();
    }
    if (block == 20 || block == 40) {
      reference->SetAudioClassGain(u"Töne", 3);
      reference->SetMasterGain(0.5F);
    }
    std::vector<float> expected(channels * frames), mixed, woven;
    std::ranges::generate(expected, [&] { return level(random); });
    mixed = woven = expected;
    float *expectedChannels[channels], *mixedChannels[channels];
    for (std::size_t c = 0; c < channels; ++c) {
      expectedChannels[c] = &expected[c * frames];
      mixedChannels[c] = &mixed[c * frames];
      for (std::size_t i = 0; i < frames; ++i)
        woven[i * channels + c] = mixed[c * frames + i];
    }
    reference->ProcessBlock(expectedChannels, expectedChannels, frames, 1);
    ASSERT_EQ(kalvrin_process_planar(planar.stream.get(), mixedChannels, mixedChannels, frames),
              KALVRIN_OK);
    ASSERT_EQ(
        kalvrin_process_interleaved(interleaved.stream.get(), woven.data(), woven.data(), frames),
        KALVRIN_OK);
    ASSERT_EQ(mixed, expected) << "block " << block;
    for (std::size_t i = 0; i < woven.size(); ++i)
      ASSERT_EQ(woven[i], expected[i % channels * frames + i / channels]) << "block " << block;
  }
}

/// At another rate the input comes back at every frequency, and again after a restart.
TEST(CInterfaceTest, AStreamAtAnyRateKeepsTheWholeBand) {
  const std::string model = MakeAudioModel(TwoClasses);
  kalvrin_model* loaded = nullptr;
  ASSERT_EQ(kalvrin_load_model(model.data(), model.size(), nullptr, 0, &loaded), KALVRIN_OK);
  const auto create = [loaded](int rateHz, std::string& reason) {
    const kalvrin_request request = {1, 0, 0};
    char text[KALVRIN_REASON_SIZE];
    kalvrin_stream* stream = nullptr;
    kalvrin_create_at_rate(loaded, &request, rateHz, text, sizeof text, &stream);
    reason = text;
    return Stream(stream);
  };
  std::string reason;
  for (const int rateHz : {0, 16000, 44100, 192000}) {
    const Stream stream = create(rateHz, reason);
    ASSERT_TRUE(stream) << reason;
    kalvrin_reset_gains(stream.get());
    kalvrin_sizes sizes;
    kalvrin_get_sizes(stream.get(), &sizes);
    EXPECT_EQ(sizes.block_frames, rateHz == 44100 ? 23u : rateHz == 192000 ? 96u : 8u);
    for (int run = 0; run < 2; ++run) {
      std::vector<float> noise(sizes.block_frames * 400);
      std::mt19937_64 random(TestSeed());
      std::ranges::generate(noise,
                            [&] { return std::uniform_real_distribution<float>(-1, 1)(random); });
      std::vector<float> out = noise;
      for (std::size_t i = 0; i < out.size(); i += sizes.block_frames)
        ASSERT_EQ(kalvrin_process_interleaved(stream.get(), &out[i], &out[i], sizes.block_frames),
                  KALVRIN_OK);
      for (std::size_t i = 0; i < out.size(); ++i)
        ASSERT_NEAR(out[i], i < sizes.latency_frames ? 0 : noise[i - sizes.latency_frames], 6e-7)
            << rateHz << ' ' << i;
      EXPECT_EQ(kalvrin_restart(stream.get()), KALVRIN_OK);
    }
    EXPECT_EQ(kalvrin_set_high_band(stream.get(), KALVRIN_HIGH_BAND_REST), KALVRIN_OK);
    EXPECT_EQ(kalvrin_set_high_band(stream.get(), static_cast<kalvrin_high_band>(2)),
              KALVRIN_INVALID_ARGUMENT);
  }
  for (const int rateHz : {-1, 16000 * 257}) {
    EXPECT_FALSE(create(rateHz, reason));
    EXPECT_NE(reason.find(rateHz < 0 ? "from 0" : "cannot convert"), std::string::npos) << reason;
  }
  kalvrin_release_model(loaded);
}

TEST(CInterfaceTest, SaysInWordsWhyThereIsNoStream) {
  struct Row {
    const char* name;
    std::string model;
    kalvrin_request request;
    kalvrin_status status;
    const char* words[2];
  };
  const Row rows[] = {
      {"empty", "", {1, 1, 1}, KALVRIN_INVALID_ARGUMENT, {"no model", ""}},
      {"garbage", "not a model", {1, 1, 1}, KALVRIN_MODEL_REFUSED, {"no model that", "expected: "}},
      {"a name of bytes that no terminal takes",
       ModelBuilder()
           .Input("input", Element::Float, {1, 1, 8})
           .Output("output", Element::Float, {1, 1, 1, 8})
           .Node("\x1b[31mCaf\u00e9\xC3\n\xFF", {"input"}, {"output"})
           .Build(),
       {1, 1, 1},
       KALVRIN_MODEL_REFUSED,
       {"?[31mCaf\u00e9? ?", "expected: "}},
      {"fixed channels",
       MakeAudioModel({.inputShape = Dimensions{2, "S", 8}}),
       {3, 1, 8},
       KALVRIN_MODEL_REFUSED,
       {"cannot be changed",
        "found: the input 'input' is float32 [2, *, 8]; asked for: 3 channels"}},
      {"fails at once",
       MakeAudioModel({.failsFromEvaluation = 0}),
       {1, 1, 8},
       KALVRIN_MODEL_REFUSED,
       {"cannot run", "asked for: 1 channel"}},
      {"too long a block",
       MakeAudioModel(),
       {1, 1, std::size_t{1} << 40},
       KALVRIN_MODEL_REFUSED,
       {"out of range", "change: ask for smaller"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Made made = Make(row.model, row.request);
    EXPECT_EQ(made.status, row.status);
    EXPECT_FALSE(made.stream);
    for (const char* words : row.words)
      EXPECT_NE(made.reason.find(words), std::string::npos) << made.reason;
  }
}

TEST(CInterfaceTest, RefusesBadArgumentsAndGoesOn) {
  constexpr float infinity = std::numeric_limits<float>::infinity();
  const Made made = Make(MakeAudioModel(TwoClasses), {1, 1, 8});
  kalvrin_stream* const stream = made.stream.get();
  ASSERT_NE(stream, nullptr);
  for (const float gain : {-1.0F, infinity, std::nanf("")}) {
    EXPECT_EQ(kalvrin_set_gain(stream, "Rest", gain), KALVRIN_INVALID_ARGUMENT) << gain;
    EXPECT_EQ(kalvrin_set_master_gain(stream, gain), KALVRIN_INVALID_ARGUMENT) << gain;
  }
  float block[9] = {};
  EXPECT_EQ(kalvrin_process_interleaved(stream, block, block, 9), KALVRIN_INVALID_ARGUMENT);
  EXPECT_EQ(kalvrin_process_interleaved(nullptr, block, block, 8), KALVRIN_INVALID_ARGUMENT);
  EXPECT_EQ(kalvrin_process_interleaved(stream, block, block, 8), KALVRIN_OK);
  kalvrin_destroy(nullptr);
}

TEST(CInterfaceTest, StreamsOfOneModelOutliveIt) {
  const std::string model = MakeAudioModel({.failsAtOneWindow = true});
  char reason[KALVRIN_REASON_SIZE];
  kalvrin_model* loaded = nullptr;
  ASSERT_EQ(kalvrin_load_model("nonsense", 8, reason, sizeof reason, &loaded),
            KALVRIN_MODEL_REFUSED);
  EXPECT_NE(*reason, '\0');
  EXPECT_EQ(loaded, nullptr);
  ASSERT_EQ(kalvrin_load_model(model.data(), model.size(), reason, sizeof reason, &loaded),
            KALVRIN_OK);
  const kalvrin_request refused = {1, 1, 8}, taken = {1, 2, 8};
  kalvrin_stream* streams[2] = {};
  EXPECT_EQ(kalvrin_create_from(loaded, &refused, reason, sizeof reason, &streams[0]),
            KALVRIN_MODEL_REFUSED);
  EXPECT_EQ(kalvrin_create_from(nullptr, &taken, reason, sizeof reason, &streams[0]),
            KALVRIN_INVALID_ARGUMENT);
  for (kalvrin_stream*& stream : streams)
    ASSERT_EQ(kalvrin_create_from(loaded, &taken, reason, sizeof reason, &stream), KALVRIN_OK);
  kalvrin_release_model(loaded);
  kalvrin_destroy(streams[0]);
  kalvrin_reset_gains(streams[1]);
  float block[8];
  for (int i = 0; i < 4; ++i) {
    std::ranges::fill(block, 0.5F);
    EXPECT_EQ(kalvrin_process_interleaved(streams[1], block, block, 8), KALVRIN_OK);
  }
  EXPECT_NEAR(block[7], 0.5F, 1e-6F);
  kalvrin_destroy(streams[1]);
}

TEST(CInterfaceTest, AReasonIsCutToItsRoomBetweenCharacters) {
  const std::string model = MakeAudioModel({.metadata = {{"LookaheadNumBlocks", "\"ä\""}}});
  const Made whole = Make(model, {1, 1, 8});
  for (std::size_t size = 1; size <= whole.reason.size() + 1; ++size) {
    std::vector<char> reason(size + 1, '#');
    kalvrin_stream* stream = nullptr;
    kalvrin_create(model.data(), model.size(), nullptr, reason.data(), size, &stream);
    const std::string cut = reason.data();
    EXPECT_EQ(reason[size], '#') << size;
    EXPECT_TRUE(whole.reason.starts_with(cut) && cut.size() + 2 >= size) << size << ": " << cut;
    kalvrin_destroy(stream);
  }
}

TEST(CInterfaceTest, AFailingModelIsAStatusAndTheStreamGoesOn) {
  const Made made = Make(MakeAudioModel({.features = 8, .failsOnLevel = true}), {1, 1, 4});
  ASSERT_TRUE(made.stream) << made.reason;
  const std::vector<float> loud(4, 2.0F), soft(4, 0.5F);
  std::vector<float> output(4);
  int failures = 0;
  for (int block = 0; block < 4; ++block)
    failures += kalvrin_process_interleaved(made.stream.get(), loud.data(), output.data(), 4) ==
                KALVRIN_ENGINE_FAILED;
  EXPECT_GT(failures, 0);
  for (int block = 0; block < 12; ++block)
    kalvrin_process_interleaved(made.stream.get(), soft.data(), output.data(), 4);
  EXPECT_NEAR(output[0], 0.5F, 1e-6F);
}

}  // namespace
