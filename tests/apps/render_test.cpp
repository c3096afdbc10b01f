// `kalvrin render` on sound models and sound audio: what comes out, where, and in which form.

#include "apps/audio_files.h"
#include "apps/tool_process.h"
#include "support/audio_models.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <limits>
#include <numeric>
#include <sndfile.hh>

namespace TestSupport {
namespace {

using Options = AudioModelOptions;

/// A folder with model.onnx and in.wav.
class Render : public testing::Test {
protected:
  void Prepare(const Options& model, const Audio& audio) {
    WriteFile(folder / "model.onnx", MakeAudioModel(model));
    WriteAudio(folder / "in.wav", audio);
  }

  /// `options` stand in a line of shell.
  Outcome Run(const std::string& options = "", const std::string& out = "out.wav",
              int exitStatus = 0) {
    Outcome outcome = folder.Run("$TOOL render model.onnx in.wav " + out + ' ' + options);
    EXPECT_EQ(outcome.exitStatus, exitStatus) << outcome.err;
    return outcome;
  }

  TemporaryFolder folder;
};

std::vector<float> Scaled(std::vector<float> samples, double gain) {
  for (float& sample : samples)
    sample = static_cast<float>(sample * gain);
  return samples;
}

Audio MakeSine(int rate, double frequencyHz, std::size_t frames) {
  Audio audio;
  audio.rate = rate;
  for (std::size_t i = 0; i < frames; ++i)
    audio.samples.push_back(
        static_cast<float>(0.5 * std::sin(2 * M_PI * frequencyHz * static_cast<double>(i) / rate)));
  return audio;
}

constexpr double rounding = 6e-7;

constexpr int wav = SF_FORMAT_WAV | SF_FORMAT_FLOAT, wav16 = SF_FORMAT_WAV | SF_FORMAT_PCM_16,
              wav24 = SF_FORMAT_WAV | SF_FORMAT_PCM_24, wav32 = SF_FORMAT_WAV | SF_FORMAT_PCM_32,
              manyChannels = SF_FORMAT_WAVEX | SF_FORMAT_FLOAT,
              flac16 = SF_FORMAT_FLAC | SF_FORMAT_PCM_16,
              flac24 = SF_FORMAT_FLAC | SF_FORMAT_PCM_24, ogg = SF_FORMAT_OGG | SF_FORMAT_VORBIS;

TEST_F(Render, UnityGivesTheInputBackInStepAndInLength) {
  const Options samples;
  const Options spectra{.features = 17,
                        .lookahead = 1,
                        .inputRank = 4,
                        .outputRank = 5,
                        .metadata = {{"LookaheadNumBlocks", "1"}}};
  const struct {
    const char* name;
    const Options& model;
    std::size_t frames;
    int channels, format;
    const char* out;
    const char* options;
    int outFormat;
  } rows[] = {
      {"float WAV", samples, 1000, 2, wav, "out.wav", "", wav},
      {"16-bit", samples, 999, 1, wav16, "out.wav", "", wav16},
      {"24-bit", samples, 999, 1, wav24, "out.WAV", "", wav24},
      {"FLAC", spectra, 5000, 2, wav16, "out.flac", "", flac16},
      {"float to FLAC", samples, 100, 8, wav, "out.flac", "", flac24},
      {"chosen encoding", samples, 100, 2, wav, "out", "--encoding=pcm32", wav32},
      {"chosen format", samples, 100, 2, wav, "out.x", "--format flac", flac24},
      {"from FLAC", samples, 100, 2, flac24, "out.wav", "", wav24},
      {"64 channels", samples, 300, 64, wav, "out.wav", "", manyChannels},
      {"spectra, lookahead", spectra, 1234, 3, wav, "out.wav", "", manyChannels},
      {"odd block", spectra, 1234, 1, wav, "out.wav", "--block=13 --sequence=3", wav},
      {"one frame", samples, 1, 1, wav, "out.wav", "", wav},
      {"no audio", samples, 0, 2, wav, "out.wav", "", wav},
      {"no audio, FLAC", samples, 0, 2, wav, "out.flac", "", flac24},
      {"no audio, Ogg", samples, 0, 2, wav, "out.ogg", "", ogg},
  };
  std::uint64_t seed = TestSeed();
  for (const auto& row : rows) {
    Audio audio = MakeNoise(row.frames, row.channels, seed++);
    audio.format = row.format;
    Prepare(row.model, audio);
    const Outcome outcome = Run(row.options, row.out);
    EXPECT_EQ(outcome.err, "") << row.name;
    if (outcome.exitStatus != 0) continue;
    const Audio out = ReadAudio(folder / row.out);
    EXPECT_EQ(out.format, row.outFormat) << row.name << std::hex << ' ' << out.format;
    EXPECT_EQ(out.channels, row.channels) << row.name;
    EXPECT_EQ(out.rate, 48000) << row.name;
    EXPECT_LE(GreatestDifference(out.samples, ReadAudio(folder / "in.wav").samples),
              row.format == wav ? rounding : 0.0)
        << row.name;
  }
}

TEST_F(Render, OggIsInStepAndSoundsTheSame) {
  const Audio audio = MakeSine(48000, 997, 30001);
  Prepare({}, audio);
  Run("", "out.ogg");
  const Audio out = ReadAudio(folder / "out.ogg");
  EXPECT_EQ(out.format, ogg);
  EXPECT_LE(GreatestDifference(out.samples, audio.samples), 0.03);
}

TEST_F(Render, RawLatencyDelaysByWhatTheSummarySays) {
  const struct {
    std::string options;
    std::size_t latency;  // window 16, hop 8
  } rows[] = {
      {"", 32 - 8 + 8},        {"--block=4", 32 - 4 + 8}, {"--block=5", 32 + 8},
      {"--sequence=1", 8 + 8}, {"--block=100", 32 + 8},
  };
  const Audio audio = MakeNoise(500, 2, TestSeed());
  Prepare({.features = 16}, audio);
  for (const auto& row : rows) {
    const Outcome outcome = Run("--raw-latency " + row.options);
    ExpectPart(outcome.out, std::to_string(row.latency) + " frames, left in");
    std::vector<float> later(2 * row.latency);
    later.insert(later.end(), audio.samples.begin(), audio.samples.end());
    EXPECT_LE(GreatestDifference(ReadAudio(folder / "out.wav").samples, later), rounding)
        << row.latency;
  }
}

TEST_F(Render, GainsOfClassesRestAndMaster) {
  // Class A is 0.5 of the input, class B is 0.25, and so Rest is 0.25.
  const Options model{.classGains = {0.5F, 0.25F},
                      .metadata = {{"AudioClassNames", "[\"A\",\"\xC3\x96l=1\"]"}}};
  const struct {
    const char* options;
    double gain;
    const char* summary;
  } rows[] = {
      {"--gain A=0", 0.5, "A 0, \xC3\x96l=1 1, Rest 1"},
      {"--gain=a=-6dB", 0.5 + 0.5 * std::pow(10, -0.3), "A 0.5012 (-6.0 dB)"},
      {"--gain=\xC3\x96l=1=3", 1.5, "\xC3\x96l=1 3 (+9.5 dB)"},
      {"--rest=0", 0.75, "Rest 0"},
      {"--gain=Rest=0 --gain=A=0", 0.25, "A 0"},
      {"--gain=A=0 --gain=A=2", 1.5, "A 2"},
      {"--master='-20 dB'", 0.1, "master 0.1 (-20.0 dB)"},
      {"--master=0.5 --rest=3", 0.75, "master 0.5"},
  };
  const Audio audio = MakeNoise(300, 2, TestSeed());
  Prepare(model, audio);
  for (const auto& row : rows) {
    ExpectPart(Run(row.options).out, row.summary);
    EXPECT_LE(
        GreatestDifference(ReadAudio(folder / "out.wav").samples, Scaled(audio.samples, row.gain)),
        2e-6)
        << row.options;
  }
  // Only the letters A to Z have two cases.
  ExpectPart(Run("--gain=\xC3\xB6l=1=3", "out.wav", 2).err,
             "the model has no class '\xC3\xB6l=1', only A, \xC3\x96l=1, Rest");
}

TEST_F(Render, StemsAddUpToTheInput) {
  const Options model{.classGains = {0.5F, 0.125F, 2},
                      .metadata = {{"AudioClassNames", R"(["Speech/1","mix","speech/1"])"},
                                   {"ChannelToAudioClassBindings", R"([[1,"Speech/1"]])"}}};
  const Audio audio = MakeNoise(700, 2, TestSeed());
  Prepare(model, audio);
  const Outcome outcome = Run("--stems stems --gain mix=0 --master 0.5");
  std::vector<float> sum(audio.samples.size());
  // The third class has the name of the first: no gain reaches it, and it is no stem.
  for (const char* name : {"stems/Speech_1.wav", "stems/mix-2.wav", "stems/Rest.wav"}) {
    const Audio stem = ReadAudio(folder / name);
    ASSERT_EQ(stem.samples.size(), sum.size()) << name;
    for (std::size_t i = 0; i < sum.size(); ++i)
      sum[i] += stem.samples[i];
    ExpectPart(outcome.out, name);
  }
  const std::filesystem::directory_iterator stems(folder / "stems");
  EXPECT_EQ(std::distance(begin(stems), end(stems)), 4) << "these and the mix";
  // What is left of the second class of the name is missing on the channel that is a mixture.
  std::vector<float> expected = audio.samples;
  for (std::size_t i = 0; i < expected.size(); i += 2)
    expected[i] -= 2 * expected[i];
  EXPECT_LE(GreatestDifference(sum, expected), 3e-6);
  EXPECT_EQ(ReadFile(folder / "stems/Mix.wav"), ReadFile(folder / "out.wav"));
  const Audio speech = ReadAudio(folder / "stems/Speech_1.wav");
  for (std::size_t i = 0; i < expected.size(); ++i)
    ASSERT_NEAR(speech.samples[i], audio.samples[i] * (i % 2 ? 1 : 0.5), rounding) << i;
}

TEST_F(Render, AnyRateKeepsItsWholeBandItsLengthAndItsPlace) {
  const Options model{.features = 512, .metadata = {{"SampleRate", "16000"}}};
  for (const int rate : {8000, 44100, 48000, 96000, 192000})
    for (const std::size_t frames : {20011, 1, 0}) {
      Audio audio = MakeNoise(frames, 2, TestSeed());
      audio.rate = rate;
      Prepare(model, audio);
      Run("--resample");
      const Audio out = ReadAudio(folder / "out.wav");
      EXPECT_EQ(out.rate, rate);
      EXPECT_LE(GreatestDifference(out.samples, audio.samples), 3e-7) << rate;
    }
  const Audio audio = MakeNoise(441, 1, TestSeed());
  Prepare(model, audio);
  const std::string said = Run("--resample --raw-latency").out;  // "latency  1234 frames (...)"
  std::vector<float> later(std::stoul(said.substr(said.find("latency") + 7)));
  EXPECT_GT(later.size(), 4 * 256U) << "more than the model's";
  later.insert(later.end(), audio.samples.begin(), audio.samples.end());
  EXPECT_LE(GreatestDifference(ReadAudio(folder / "out.wav").samples, later), 3e-7);
}

TEST_F(Render, WhatIsAboveTheModelsBandIsInRest) {
  Audio audio = MakeNoise(40000, 1, TestSeed());  // at 48 kHz
  Prepare({.features = 64,
           .classGains = {0.75F, 0.25F},
           .metadata = {{"AudioClassNames", R"(["A","B"])"}, {"SampleRate", "16000"}}},
          audio);
  Run("--resample --stems stems --rest=-20dB");
  const auto stem = [&](const std::string& name) {
    return ReadAudio(folder / ("stems/" + name + ".wav")).samples;
  };
  std::vector<float> sum = stem("A");
  for (const char* name : {"B", "Rest"})
    std::ranges::transform(sum, stem(name), sum.begin(), std::plus());
  EXPECT_LE(GreatestDifference(sum, audio.samples), 1e-6);
  EXPECT_EQ(stem("Mix"), ReadAudio(folder / "out.wav").samples);

  // The classes claim all of the model's third of the band.
  const auto power = [](const std::vector<float>& samples) {
    return std::inner_product(samples.begin(), samples.end(), samples.begin(), 0.0);
  };
  const double all = power(audio.samples);
  EXPECT_NEAR(power(stem("Rest")) / all, 2.0 / 3, 0.05);
  EXPECT_NEAR(power(stem("Mix")) / all, 1, 0.05) << "it follows the classes";
  Run("--resample --rest=-20dB --high-band=rest");
  EXPECT_NEAR(power(ReadAudio(folder / "out.wav").samples) / all, 1.0 / 3, 0.05);
  ExpectPart(Run("--high-band=on", "out.wav", 2).err, "'on' is not follow or rest");
}

TEST_F(Render, ThroughPipesAndOntoItself) {
  const Audio audio = MakeNoise(5000, 2, TestSeed());
  const struct {
    const char* line;
    bool summaryOnErrors;
  } rows[] = {
      {"cat in.wav | $TOOL render model.onnx - - | cat > out.wav", true},
      {"$TOOL render model.onnx - - < in.wav > out.wav", true},
      {"$TOOL render model.onnx in.wav - --format=flac > out.wav", true},
      {"cat model.onnx | $TOOL render - in.wav out.wav", false},
      {"mkfifo pipe; cat pipe > out.wav & $TOOL render model.onnx in.wav pipe; wait", false},
      {"cp in.wav file; chmod 640 file; ln -s file out.wav; $TOOL render model.onnx out.wav "
       "out.wav && test -L out.wav && test $(stat -c %a file) = 640",
       false},
  };
  for (const auto& row : rows) {
    Prepare({}, audio);
    std::filesystem::remove(folder / "out.wav");
    const Outcome outcome = folder.Run(row.line);
    EXPECT_EQ(outcome.exitStatus, 0) << row.line << '\n' << outcome.err;
    const std::string& summary = row.summaryOnErrors ? outcome.err : outcome.out;
    ExpectPart(summary, "real-time factor ");
    EXPECT_TRUE((row.summaryOnErrors ? outcome.out : outcome.err).empty())
        << row.line << outcome.err;
    EXPECT_LE(GreatestDifference(ReadAudio(folder / "out.wav").samples, audio.samples), rounding)
        << row.line;
  }
}

TEST_F(Render, NonFiniteAndLoudSamplesAreMadeGoodAndReported) {
  constexpr float infinity = std::numeric_limits<float>::infinity();
  Audio audio = MakeNoise(400, 2, TestSeed());
  audio.samples[200] = std::numeric_limits<float>::quiet_NaN();
  audio.samples[301] = -infinity;
  Prepare({.states = {{.element = Element::Float,
                       .shape = {1},
                       .update = StateOptions::Update::Keep,
                       .isHeard = true}}},
          audio);
  const Outcome outcome = Run("--master 4 --encoding pcm16");
  ExpectPart(outcome.err,
             "in.wav holds values that are not finite (2 samples, the first in frame 100)");
  ExpectPart(outcome.err, "out.wav is louder than full scale (");
  audio.samples[200] = audio.samples[301] = 0;
  std::vector<float> expected = Scaled(audio.samples, 4);
  for (float& sample : expected)
    sample = std::clamp(sample, -1.0F, 32767.0F / 32768);
  EXPECT_LE(GreatestDifference(ReadAudio(folder / "out.wav").samples, expected), 1.0 / 32768);

  // A model that gives no numbers: 0 times an infinite gain.
  Prepare({.classGains = {infinity}}, MakeNoise(100, 1, TestSeed()));
  ExpectPart(Run("--rest=0").err, "the model gave values that are not finite (100 samples");
  EXPECT_EQ(ReadAudio(folder / "out.wav").samples, std::vector<float>(100));
}

TEST_F(Render, KeepsTitleAndLoudspeakers) {
  Prepare({}, {});
  int map[] = {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_LFE}, kept[3] = {};
  {
    SndfileHandle file(folder / "in.wav", SFM_WRITE, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16, 3, 48000);
    ASSERT_EQ(file.command(SFC_SET_CHANNEL_MAP_INFO, map, sizeof map), SF_TRUE);
    file.setString(SF_STR_TITLE, "A title");
    file.writef(MakeNoise(100, 3, TestSeed()).samples.data(), 100);
  }
  Run();
  SndfileHandle file(folder / "out.wav");
  EXPECT_STREQ(file.getString(SF_STR_TITLE), "A title");
  EXPECT_EQ(file.command(SFC_GET_CHANNEL_MAP_INFO, kept, sizeof kept), SF_TRUE);
  EXPECT_TRUE(std::ranges::equal(kept, map));
}

}  // namespace
}  // namespace TestSupport
