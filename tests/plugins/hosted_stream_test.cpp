// What plugins play, compared with the library's own output at all rates, block lengths and modes.

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

namespace {

using namespace Orvik::Tesmo;
using namespace Orvik::Tesmo::Hosting;
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

/// The description of a counting model, with a model of `options`, which does not count.
PluginModel ClaimingModel(std::uint64_t hop, std::uint32_t rateHz,
                          TestSupport::AudioModelOptions options) {
  PluginModel model = CountingModel(hop, 1, rateHz);
  options.features = static_cast<std::int64_t>(2 * hop);
  model.bytes = TestSupport::Bytes(MakeAudioModel(options));
  return model;
}

/// A chord that swells, within the band of 8 kHz: conversions of the rate leave it alone.
Audio Chord(std::size_t channels, std::size_t frames, double rateHz) {
  Audio audio(channels, std::vector<float>(frames));
  for (std::size_t c = 0; c < channels; ++c)
    for (std::size_t i = 0; i < frames; ++i) {
      const double t = static_cast<double>(i) / rateHz;
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
  HighBand highBand = HighBand::Follow;

  /// At any frame.
  Controls operator()(std::size_t) const {
    return {.classGainsDb = classesDb,
            .restGainDb = restDb,
            .masterGainDb = masterDb,
            .highBand = highBand,
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

/// The library alone at the model's rate, its latency taken out: what a plugin plays, in time with
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

/// Audio of 16 kHz and less than half of its band, at another rate.
Audio At(double rateHz, const Audio& audio) {
  constexpr std::ptrdiff_t reach = 64;
  const double step = 16000 / rateHz;
  Audio result;
  for (const auto& channel : audio) {
    const auto length = static_cast<std::ptrdiff_t>(channel.size());
    result.emplace_back(static_cast<std::size_t>(static_cast<double>(length) / step));
    for (std::size_t n = 0; n < result.back().size(); ++n) {
      const double place = static_cast<double>(n) * step;
      const auto middle = static_cast<std::ptrdiff_t>(place);
      double sum = 0;
      for (auto i = std::max(middle - reach + 1, std::ptrdiff_t{0});
           i <= std::min(middle + reach, length - 1); ++i) {
        const double x = std::numbers::pi * (place - static_cast<double>(i));
        const double window = 0.5 + 0.5 * std::cos(x / reach);
        sum += channel[static_cast<std::size_t>(i)] * window * (x == 0 ? 1 : std::sin(x) / x);
      }
      result.back()[n] = static_cast<float>(sum);
    }
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

TEST(HostedStream, PlaysTheLibrarysOutputAtTheReportedLatency) {
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
        EXPECT_EQ(Difference(output, expected, stream.GetLatencyFrames(mode)), 0) << "every bit";
        for (const auto& channel : output)
          EXPECT_TRUE(std::all_of(channel.begin(), channel.begin() + d.ChunkFrames(),
                                  [](float sample) { return sample == 0; }))
              << "what played before";
        EXPECT_EQ(stream.LateResults(), 0u);
      }
  }
}

/// Uniform noise to full scale, up to the highest frequency.
Audio Noise(std::size_t channels, std::size_t frames, float amplitude) {
  Audio audio(channels, std::vector<float>(frames));
  std::mt19937_64 generator(TestSupport::TestSeed());
  for (auto& channel : audio)
    for (float& sample : channel)
      sample = std::uniform_real_distribution<float>(-amplitude, amplitude)(generator);
  return audio;
}

TEST(HostedStream, ConvertsEveryRateAtTheReportedLatency) {
  const PluginModel bands = Recipe("band_splitter", 512, 0, 1, {"Low", "Voice", "High"});
  const PluginModel counting = CountingModel(441, 2, 48000);  // its class is not the input
  for (const double hostHz :
       {8000.0, 11025.0, 22050.0, 44100.0, 44101.5, 47952.0, 48000.0, 96000.0, 192000.0}) {
    SCOPED_TRACE(hostHz);
    const auto frames = static_cast<std::size_t>(hostHz * 0.6);

    // all gains 1: the input at every frequency, whatever the model does
    const Audio noise = Noise(2, frames, 1);
    for (const PluginModel* model : {&bands, &counting})
      for (const ModeWish mode : {ModeWish::Direct, ModeWish::Spread}) {
        HostedStream stream(model->description, model->bytes, hostHz, 2);
        const Audio output = Play(stream, noise, Ragged(), Knobs{.mode = mode});
        EXPECT_LE(Difference(output, noise, stream.GetLatencyFrames(mode)), 3e-7)
            << model->description.name;
      }

    // with a gain for each class: what the library does at the model's rate
    const Audio input = Chord(1, frames, hostHz);
    const auto settled = static_cast<std::size_t>(hostHz / 10);
    HostedStream stream(bands.description, bands.bytes, hostHz, 1);
    for (const ModeWish mode : {ModeWish::Direct, ModeWish::Spread}) {
      const Knobs knobs = {.classesDb = {0, -6, -60}, .restDb = -60, .mode = mode};
      stream.Activate();
      const Audio output = Play(stream, input, Ragged(), knobs);
      Audio expected = At(hostHz, Offline(bands, knobs, Chord(1, 9600, 16000)));
      for (auto& channel : expected)
        channel.resize(channel.size() - 2 * settled);
      EXPECT_LE(Difference(output, expected, stream.GetLatencyFrames(mode), settled), 2e-3);
    }
  }
}

/// From 20 Hz to 24 kHz or what the rate has of it, in `frames` frames.
struct Sweep {
  double hostHz;
  std::size_t frames;

  double HzAt(double frame) const {
    const double highestHz = std::min(24000.0, hostHz / 2);
    return 20 * std::pow(highestHz / 20, frame / static_cast<double>(frames));
  }
  /// With hiss, which lets the model's top octave be heard while the sweep is above it.
  Audio Play(float hiss) const {
    Audio audio = Noise(1, frames, hiss);
    double phase = 0;
    for (std::size_t i = 0; i < frames; ++i) {
      phase += 2 * std::numbers::pi * HzAt(static_cast<double>(i)) / hostHz;
      audio[0][i] += static_cast<float>(0.5 * std::sin(phase));
    }
    return audio;
  }
};

/// Level in dB against frequency, over what a model at 16 kHz claims and how its gains stand: no
/// comb, no dip where its band ends, and no leak of what is muted.
TEST(HostedStream, ASweepOverTheModelsBandHasNoDip) {
  constexpr std::size_t window = 480;
  constexpr double edgeHz = 6500, aboveHz = 8500;  // the converters' transition is between
  constexpr double mute = -80;                     // dB, and less
  const struct {
    const char* name;
    float claimed;  // by the model's class
    float classDb, restDb;
    HighBand highBand;
    double belowDb, aboveDb;
  } rows[] = {{"unity", 0.5F, 0, 0, HighBand::Follow, 0, 0},
              {"nothing is claimed", 0, 0, -20, HighBand::Follow, -20, -20},
              {"nothing is claimed, as Rest", 0, 0, -20, HighBand::Rest, -20, -20},
              {"all is claimed", 1, 0, -20, HighBand::Follow, 0, 0},
              {"all is claimed, as Rest", 1, 0, -20, HighBand::Rest, 0, -20},
              {"all is muted, as Rest", 1, -60, 0, HighBand::Rest, mute, 0}};
  for (const double hostHz : {44100.0, 48000.0, 96000.0})
    for (const auto& row : rows) {
      const PluginModel model = ClaimingModel(256, 16000, {.classGains = {row.claimed}});
      HostedStream stream(model.description, model.bytes, hostHz, 1);
      const Sweep sweep{hostHz, static_cast<std::size_t>(2 * hostHz)};
      const Audio input = sweep.Play(row.highBand == HighBand::Follow ? 1e-3F : 0);
      const Audio output =
          Play(stream, input, Constant(512),
               Knobs{.classesDb = {row.classDb}, .restDb = row.restDb, .highBand = row.highBand});
      const std::size_t latency = stream.GetLatencyFrames(ModeWish::Automatic);
      for (std::size_t begin = 4800; begin + window + latency < sweep.frames; begin += window) {
        double before = 0;
        double after = 0;
        for (std::size_t i = begin; i < begin + window; ++i) {
          before += std::pow(input[0][i], 2);
          after += std::pow(output[0][i + latency], 2);
        }
        const double hz = sweep.HzAt(static_cast<double>(begin) + window / 2.0);
        const double level = std::max(mute, 10 * std::log10(after / before));
        const double least = hz < edgeHz ? row.belowDb : std::min(row.belowDb, row.aboveDb);
        const double greatest = hz > aboveHz ? row.aboveDb : std::max(row.belowDb, row.aboveDb);
        ASSERT_GE(level, least - 0.1) << row.name << " at " << hz << " Hz";
        ASSERT_LE(level, greatest + 0.1) << row.name << " at " << hz << " Hz";
      }
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

TEST(HostedStream, InputThatIsNoFiniteNumberIsSilenceAndLeavesNoTrace) {
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

TEST(HostedStream, AChangeOfModeMutesAndThenPlaysAtTheNewLatency) {
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

/// A model whose evaluation takes longer than the host's chunk: never a wait. What comes too late
/// is counted and counts as no class found, and what comes in time is right.
TEST(HostedStream, LateResultsAreTheInputAtTheGainOfRest) {
  const PluginModel model = CountingModel(32, 1, 0);
  HostedStream stream(model.description, model.bytes, 48000, 1);
  const auto controls = [](std::size_t) -> Controls {
    return {.classGainsDb = {}, .mode = ModeWish::Spread};
  };
  const Audio output = Play(stream, Audio(1, std::vector<float>(std::size_t{20000} * 32, 0.5F)),
                            Constant(32), controls);
  // With all gains 1 nobody hears which results were late.
  EXPECT_TRUE(std::all_of(output[0].begin() + 4 * 32, output[0].end(),
                          [](float x) { return std::fabs(x - 0.5F) < 1e-6; }));
  EXPECT_GT(stream.LateResults(), 0u) << "no evaluation is as fast as a copy";
  EXPECT_GT(stream.Load(), 0);
}

/// One sample makes two evaluations fail, as the window overlaps. Where there is no result the
/// input plays at the gain of Rest; it fades in and out over 5 ms, without a step.
TEST(HostedStream, AFailingEngineIsTheInputAtTheGainOfRest) {
  constexpr std::size_t hop = 480, bad = 9601;
  const PluginModel model = ClaimingModel(hop, 0, {.failsOnLevel = true});
  for (const ModeWish mode : {ModeWish::Direct, ModeWish::Spread}) {
    HostedStream stream(model.description, model.bytes, 48000, 1);
    Audio input(1, std::vector<float>(40 * hop, 0.5F));
    input[0][bad] = 1.5F;
    const Audio output = Play(stream, input, Constant(hop), Knobs{.restDb = -20, .mode = mode});
    const std::size_t latency = stream.GetLatencyFrames(mode);
    EXPECT_EQ(stream.FailedEvaluations(), 2u);
    const std::size_t begin = bad / hop * hop + latency - hop, end = begin + 2 * hop;
    for (std::size_t i = begin - hop; i < end + 3 * hop; ++i) {
      if (i == bad + latency) continue;
      const float before = i == bad + latency + 1 ? output[0][i - 2] : output[0][i - 1];
      ASSERT_LE(std::fabs(output[0][i] - before), 0.45 / 240 * 4) << i << ": no step";
      if (i >= begin + 240 && i < end) {
        ASSERT_NEAR(output[0][i], 0.05F, 1e-6) << i;
      }
    }
  }
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
       {"window 0", "window -2", "sequence 99999999", "channels 65", "colour red"})
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
