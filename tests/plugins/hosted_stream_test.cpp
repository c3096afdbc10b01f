// What plugins play beside the library's own output, over rates, block lengths and modes.

#include "hosting/hosted_stream.h"

#include "plugins/plugin_models.h"
#include "support/rendered.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <limits>
#include <numbers>
#include <random>
#include <samplerate.h>

namespace {

using namespace Orvik::Tesmo;
using namespace Orvik::Tesmo::Plugin;
using TestSupport::CountingModel;
using TestSupport::PluginModel;
using Audio = std::vector<std::vector<float>>;  // channels of samples

PluginModel Recipe(const char* name, std::uint64_t window, std::uint64_t lookahead,
                   std::uint64_t sequence, std::vector<std::string> classes) {
  return {{.name = name,
           .symbol = name,
           .sampleRateHz = 16000,
           .windowLength = window,
           .lookaheadBlocks = lookahead,
           .sequenceSize = sequence,
           .channelCounts = {1, 2},
           .classes = std::move(classes)},
          TestSupport::Bytes(TestSupport::RecipeModel(name))};
}

/// A chord that swells, within the band of 8 kHz: conversions of the rate leave it alone. `begin`
/// is the time of its first frame, in frames.
Audio Chord(std::size_t channels, std::size_t frames, double rateHz, double begin = 0) {
  Audio audio(channels, std::vector<float>(frames));
  for (std::size_t c = 0; c < channels; ++c)
    for (std::size_t i = 0; i < frames; ++i) {
      const double t = (static_cast<double>(i) + begin) / rateHz;
      double value = 0;
      for (const double hz : {311.0, 747.0, 1530.0, 2417.0})
        value += std::sin(2 * std::numbers::pi * hz * (static_cast<double>(c) * 0.1 + t));
      audio[c][i] = static_cast<float>(0.2 * value * (0.6 + 0.4 * std::sin(9 * t)));
    }
  return audio;
}

struct Knobs {
  std::vector<float> classesDb = {};
  float restDb = 0, masterDb = 0;
  ModeWish mode = ModeWish::Automatic;

  /// At any frame.
  Controls operator()(std::size_t) const {
    return {.classGainsDb = classesDb,
            .restGainDb = restDb,
            .masterGainDb = masterDb,
            .mode = mode,
            .mayWait = true};  // a test does not play in real time
  }
};

using ControlsAt = std::function<Controls(std::size_t frame)>;
using BlockLength = std::function<std::uint32_t()>;

/// Runs all of `input` through in place.
Audio Play(HostedStream& stream, Audio audio, const BlockLength& next, const ControlsAt& controls) {
  const std::size_t frames = audio.front().size();
  for (std::size_t done = 0; done < frames;) {
    const auto n = static_cast<std::uint32_t>(std::min<std::size_t>(next(), frames - done));
    std::vector<float*> places;
    for (auto& channel : audio)
      places.push_back(channel.data() + done);
    stream.Process(places.data(), places.data(), n, controls(done));
    done += n;
  }
  return audio;
}

/// The library alone at the model's rate, its latency taken out: what a plugin gives, in time with
/// its input.
Audio Offline(const PluginModel& model, const Knobs& knobs, const Audio& input) {
  const Description& d = model.description;
  const std::uint64_t block = d.ChunkFrames();
  const std::unique_ptr<StreamProcessor> stream(CreateStreamProcessor(
      model.bytes->data(), model.bytes->size(), d.sequenceSize, input.size(), block));
  const auto gain = [](double db) {
    return db <= lowestGainDb ? 0 : static_cast<float>(std::pow(10.0, db / 20));
  };
  stream->ResetGains();
  stream->SetMasterGain(gain(knobs.masterDb));
  stream->SetAudioClassGain(u"Rest", gain(knobs.restDb));
  for (std::size_t i = 0; i < knobs.classesDb.size(); ++i)
    stream->SetAudioClassGain(std::u16string(d.classes[i].begin(), d.classes[i].end()).c_str(),
                              gain(knobs.classesDb[i]));
  const std::uint64_t latency =
      LatencyFrames(d.windowLength, d.lookaheadBlocks, d.sequenceSize, block);
  return TestSupport::Rendered(*stream, latency, block, input);
}

Audio Converted(const Audio& audio, double fromHz, double toHz) {
  if (fromHz == toHz) return audio;
  Audio result;
  for (const auto& channel : audio) {
    result.emplace_back(
        static_cast<std::size_t>(static_cast<double>(channel.size()) * toHz / fromHz));
    SRC_DATA data{};
    data.data_in = channel.data();
    data.input_frames = static_cast<long>(channel.size());
    data.data_out = result.back().data();
    data.output_frames = static_cast<long>(result.back().size());
    data.src_ratio = toHz / fromHz;
    src_simple(&data, SRC_SINC_BEST_QUALITY, 1);
  }
  return result;
}

/// The greatest difference of `later` to `audio` `delay` frames before, from frame `begin` on.
double Difference(const Audio& later, const Audio& audio, std::size_t delay,
                  std::size_t begin = 0) {
  double difference = 0;
  for (std::size_t c = 0; c < audio.size(); ++c)
    for (std::size_t i = begin; i + delay < later[c].size() && i < audio[c].size(); ++i)
      difference =
          std::max(difference, std::fabs(static_cast<double>(later[c][i + delay]) - audio[c][i]));
  return difference;
}

BlockLength Constant(std::uint32_t frames) {
  return [frames] { return frames; };
}

/// 1 to 8192 frames, all magnitudes alike.
BlockLength Ragged() {
  return [generator = std::mt19937_64(TestSupport::TestSeed())]() mutable {
    return static_cast<std::uint32_t>(
        std::exp2(std::uniform_real_distribution<>(0, 13)(generator)));
  };
}

TEST(HostedStream, GivesTheLibrarysOutputAtTheReportedLatency) {
  const struct {
    const char* name;
    PluginModel model;
    Knobs knobs;
  } models[] = {
      {"counting", CountingModel(48, 3, 48000), {.restDb = -60}},
      {"of any rate", CountingModel(100, 1, 0), {.classesDb = {-6}}},
      {"looks ahead",
       Recipe("harmonic_percussive", 1024, 3, 1, {"Harmonic", "Percussive"}),
       {.classesDb = {-60}, .masterDb = -3}},
  };
  const std::pair<const char*, BlockLength> blocks[] = {
      {"1", Constant(1)}, {"32", Constant(32)}, {"8192", Constant(8192)}, {"ragged", Ragged()}};

  for (const auto& model : models) {
    const double rateHz =
        model.model.description.sampleRateHz ? model.model.description.sampleRateHz : 44100;
    const Audio input = Chord(2, 9000, rateHz);
    const Audio expected = Offline(model.model, model.knobs, input);
    HostedStream stream(model.model.description, model.model.bytes, rateHz, 2);
    for (const ModeWish mode : {ModeWish::Direct, ModeWish::Spread})
      for (const auto& [length, next] : blocks) {
        const bool spreads = mode == ModeWish::Spread;
        SCOPED_TRACE(std::string(model.name) + (spreads ? ", spread" : ", direct") +
                     ", blocks of " + length);
        Knobs knobs = model.knobs;
        knobs.mode = mode;
        stream.Activate();
        const Audio output = Play(stream, input, next, knobs);
        const Description& d = model.model.description;
        EXPECT_EQ(stream.GetLatencyFrames(mode),
                  d.ChunkFrames() * (spreads ? 2 : 1) + d.HopLength() * (1 + d.lookaheadBlocks));
        EXPECT_EQ(stream.GetLatencyRemainder(), 0);
        EXPECT_EQ(Difference(output, expected, stream.GetLatencyFrames(mode)), 0) << "every bit";
        for (const auto& channel : output)
          EXPECT_TRUE(std::all_of(channel.begin(), channel.begin() + d.ChunkFrames(),
                                  [](float sample) { return sample == 0; }))
              << "what played before";
        EXPECT_EQ(stream.LateResults(), 0u);
      }
  }
}

TEST(HostedStream, ConvertsEveryRateAtTheReportedLatency) {
  const PluginModel model = Recipe("band_splitter", 512, 0, 1, {"Low", "Voice", "High"});
  constexpr double tolerance = 2e-3;
  for (const double hostHz :
       {8000.0, 11025.0, 22050.0, 44100.0, 47952.0, 48000.0, 96000.0, 192000.0}) {
    SCOPED_TRACE(hostHz);
    const Audio input = Chord(1, static_cast<std::size_t>(hostHz * 0.6), hostHz);
    const auto settled = static_cast<std::size_t>(hostHz / 10);
    HostedStream stream(model.description, model.bytes, hostHz, 1);

    // all gains 1: the input, to a fraction of a frame
    const Audio delayed = Play(stream, input, Ragged(), Knobs());
    const std::size_t latency = stream.GetLatencyFrames(ModeWish::Automatic);
    const double remainder = stream.GetLatencyRemainder();
    EXPECT_LE(std::fabs(remainder), 0.5);
    const Audio shifted = Chord(1, delayed[0].size(), hostHz, -remainder);
    EXPECT_LE(Difference(delayed, shifted, latency, settled), tolerance);

    // the classes by gains of their own: what the library gives at the model's rate
    stream.Activate();
    const Knobs knobs = {.classesDb = {0, -6, -60}, .restDb = -60};
    const Audio output = Play(stream, input, Ragged(), knobs);
    Audio expected =
        Converted(Offline(model, knobs, Converted(input, hostHz, 16000)), 16000, hostHz);
    for (auto& channel : expected)
      channel.resize(channel.size() - 2 * settled);
    const double slope = 0.2 * 2 * std::numbers::pi * (311 + 747 + 1530 + 2417) / hostHz;
    EXPECT_LE(Difference(output, expected, latency, settled),
              tolerance + std::fabs(remainder) * slope);
  }
}

TEST(HostedStream, BypassIsTheInputAtTheLatencyAndTogglesWithoutAClick) {
  for (const double hostHz : {16000.0, 44100.0}) {
    SCOPED_TRACE(hostHz);
    const PluginModel model = Recipe("noise_reducer", 512, 0, 1, {"Speech"});
    HostedStream stream(model.description, model.bytes, hostHz, 1);
    const Audio input = Chord(1, 60000, hostHz);
    const Knobs knobs = {.classesDb = {-60}, .restDb = -60};  // silence
    const auto controls = [&](std::size_t frame) {
      Controls at = knobs(frame);
      at.isBypassed = frame < 20000 || frame >= 40000;
      return at;
    };
    const Audio output = Play(stream, input, Constant(100), controls);
    const std::size_t latency = stream.GetLatencyFrames(ModeWish::Automatic);
    for (std::size_t i = 0; i < output[0].size(); ++i) {
      const float delayed = i < latency ? 0 : input[0][i - latency];
      const bool fades = (i >= 20000 && i < 20500) || (i >= 40000 && i < 40500);
      if (!fades) {
        ASSERT_EQ(output[0][i], i < 20000 || i >= 40000 ? delayed : 0) << i;
      }
      if (i != 0) {  // no step is steeper than the signal's own, but for the fade's
        const double fade = 1 / (0.01 * hostHz);
        const double own = i <= latency ? 1 : std::fabs(delayed - input[0][i - latency - 1]);
        ASSERT_LE(std::fabs(output[0][i] - output[0][i - 1]), own + fade) << i;
      }
    }
  }
}

TEST(HostedStream, WhatIsNoNumberIsSilenceAndDoesNotStick) {
  const PluginModel model = Recipe("noise_reducer", 512, 0, 1, {"Speech"});
  for (const float bad :
       {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(), 3e38F}) {
    for (const double hostHz : {16000.0, 48000.0}) {
      Audio clean = Chord(1, 40000, hostHz);
      std::fill_n(clean[0].begin() + 9000, 50, 0.0F);
      Audio dirty = clean;
      std::fill_n(dirty[0].begin() + 9000, 50, bad);
      const Knobs knobs = {.restDb = -60};
      const auto run = [&](const Audio& audio) {
        HostedStream stream(model.description, model.bytes, hostHz, 1);
        return Play(stream, audio, Constant(64), knobs);
      };
      EXPECT_EQ(run(dirty), run(clean)) << bad << " at " << hostHz;
    }
  }
}

TEST(HostedStream, AutomaticModeGoesByTheFirstBlock) {
  const PluginModel model = CountingModel(256, 1, 16000);
  const struct {
    double hostHz;
    std::uint32_t usual, first;
    Mode mode;
  } rows[] = {{16000, 0, 255, Mode::Spread},   {16000, 0, 256, Mode::Direct},
              {48000, 0, 767, Mode::Spread},   {48000, 0, 768, Mode::Direct},
              {48000, 64, 8192, Mode::Spread}, {48000, 1024, 32, Mode::Direct}};
  for (const auto& row : rows) {
    HostedStream stream(model.description, model.bytes, row.hostHz, 1, row.usual);
    Audio audio = Chord(1, row.first, row.hostHz);
    Play(stream, audio, Constant(row.first), Knobs());
    EXPECT_EQ(stream.GetMode(), row.mode) << row.hostHz << ' ' << row.usual << ' ' << row.first;
    Play(stream, audio, Constant(10), Knobs());
    EXPECT_EQ(stream.GetMode(), row.mode) << "and stays";
  }
}

TEST(HostedStream, ModesChangeInSilenceAndInStep) {
  const PluginModel model = Recipe("band_splitter", 512, 0, 1, {"Low", "Voice", "High"});
  for (const double hostHz : {16000.0, 48000.0}) {
    HostedStream stream(model.description, model.bytes, hostHz, 1);
    const Audio input = Chord(1, 90000, hostHz);
    const auto controls = [](std::size_t frame) -> Controls {
      const bool spreads = frame / 30000 == 1;
      return {.classGainsDb = {},
              .mode = spreads ? ModeWish::Spread : ModeWish::Direct,
              .mayWait = true};
    };
    const Audio output = Play(stream, input, Constant(50), controls);
    const std::size_t direct = stream.GetLatencyFrames(ModeWish::Direct);
    const auto spread = static_cast<std::size_t>(direct + 256 * hostHz / 16000);
    for (std::size_t i = 15000; i < output[0].size(); ++i) {
      if (i % 30000 < 10000) {
        ASSERT_LE(std::fabs(output[0][i] - output[0][i - 1]), 0.7) << i;
        continue;
      }
      ASSERT_NEAR(output[0][i], input[0][i - (i / 30000 == 1 ? spread : direct)], 2e-3) << i;
    }
    EXPECT_EQ(stream.LateResults(), 0u);
  }
}

/// A model whose evaluation takes longer than the host's chunk: never a wait, what comes too late
/// is silence and counted, and what comes in time is right.
TEST(HostedStream, LateResultsAreSilentAndCounted) {
  const PluginModel model = CountingModel(32, 1, 0);
  HostedStream stream(model.description, model.bytes, 48000, 1);
  const std::vector<float> ones(32, 0.5F);
  std::vector<float> out(32);
  const float* const input[] = {ones.data()};
  float* const output[] = {out.data()};
  Controls controls{.classGainsDb = {}, .mode = ModeWish::Spread};
  std::uint64_t silent = 0;
  for (int i = 0; i < 20000; ++i) {
    stream.Process(input, output, 32, controls);
    silent += std::ranges::all_of(out, [](float x) { return x == 0; });
  }
  EXPECT_GT(stream.LateResults(), 0u) << "no evaluation is as fast as a copy";
  EXPECT_LE(stream.LateResults(), silent + 1);
  controls.mayWait = true;
  for (int i = 0; i < 8; ++i)
    stream.Process(input, output, 32, controls);
  EXPECT_NEAR(out.back(), 0.5F, 1e-6) << "it is in step again";
}

TEST(HostedStream, AFailingEngineIsSilenceForItsStretch) {
  const PluginModel model = CountingModel(64, 1, 0, {.failsOnLevel = true});
  HostedStream stream(model.description, model.bytes, 48000, 1);
  Audio input(1, std::vector<float>(6400, 0.5F));
  input[0][3200] = 1.5F;
  const Audio output = Play(stream, input, Constant(64), Knobs());
  EXPECT_EQ(stream.FailedEvaluations(), 2u) << "the frame is in two windows";
  EXPECT_EQ(std::ranges::count(output[0], 0.0F), 128 + 128);
  EXPECT_EQ(output[0].back(), 0.5F);
}

TEST(HostedStream, RefusesWhatItCannotDo) {
  const PluginModel model = CountingModel(64, 1, 16000);
  EXPECT_THROW(HostedStream(model.description, model.bytes, 7999, 1), std::runtime_error);
  EXPECT_THROW(HostedStream(model.description, model.bytes, 192001, 1), std::runtime_error);
  EXPECT_THROW(HostedStream(model.description, TestSupport::Bytes("no model"), 48000, 1),
               std::runtime_error);
}

TEST(Description, ComesBackAsWrittenAndRefusesTheRest) {
  const std::filesystem::path file = std::filesystem::path(testing::TempDir()) / "some.plugin";
  const auto read = [&](const std::string& text) {
    std::ofstream(file) << text;
    return DescriptionText(ReadDescription(file));
  };
  Description d = CountingModel(64, 2, 16000).description;
  d.name = "Ein Näme  with spaces ";
  d.classes = {"Música", "a b"};
  const std::string text = DescriptionText(d);
  EXPECT_EQ(read(text), text);
  for (const char* bad : {"", "kalvrin-plugin 2\n", "kalvrin-plugin 1\nsymbol a\n"})
    EXPECT_THROW(read(bad), std::runtime_error) << bad;
  for (const char* line :
       {"window 0", "window -2", "sequence 99999999", "channels 3", "colour red"})
    EXPECT_THROW(read(text + line + "\n"), std::runtime_error) << line;
}

TEST(ModelBytes, AreLoadedOncePerFile) {
  const std::filesystem::path file = std::filesystem::path(testing::TempDir()) / "some.onnx";
  std::ofstream(file) << "first";
  const auto one = LoadModelBytes(file);
  EXPECT_EQ(one, LoadModelBytes(file.parent_path() / "." / file.filename()));
  std::filesystem::remove(file);
  EXPECT_THROW(LoadModelBytes(file), std::runtime_error);
  std::ofstream(file) << "second";
  EXPECT_EQ(std::string(LoadModelBytes(file)->data(), 6), "second");
}

}  // namespace
