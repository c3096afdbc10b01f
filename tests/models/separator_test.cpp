// Runs the trained model through the library on five seconds of a voice, a language and a piece of
// music that it was not trained on. The limits are a little below what it reaches there; an output
// that is late by one frame misses them.

#include "models/recipe_audio.h"
#include "support/rendered.h"

#include <kalvrin/stream_processor.h>

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>
#include <utility>

namespace Orvik::Tesmo {
namespace {

using Signal = std::vector<float>;

double Product(const Signal& a, const Signal& b) {
  return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
}

double Level(const Signal& part, const Signal& whole) {
  return 10.0 * std::log10(Product(part, part) / Product(whole, whole) + 1e-12);
}

/// Ratio in dB between the part of `estimate` that is `target`, at any level, and the rest of it.
double SignalRatio(const Signal& estimate, const Signal& target) {
  const double signal = std::pow(Product(estimate, target), 2) / Product(target, target);
  return 10.0 * std::log10(signal / (Product(estimate, estimate) - signal));
}

/// Speech and music at the same level.
std::vector<Signal> ReadExcerpt() {
  SF_INFO info = {};
  const std::unique_ptr<SNDFILE, int (*)(SNDFILE*)> file(sf_open(KALVRIN_EXCERPT, SFM_READ, &info),
                                                         sf_close);
  if (!file || info.channels != 2) throw std::runtime_error("cannot read " KALVRIN_EXCERPT);
  Signal frames(static_cast<std::size_t>(info.frames) * 2);
  sf_readf_float(file.get(), frames.data(), info.frames);
  std::vector<Signal> channels(2);
  for (std::size_t n = 0; n < frames.size(); ++n)
    channels[n % 2].push_back(frames[n]);
  return channels;
}

/// The output of the class for each of `channels`, in time with them.
std::vector<Signal> Extract(const char16_t* name, std::vector<Signal> channels,
                            std::uint64_t sequenceSize) {
  constexpr std::uint64_t blockFrames = 256;
  static const auto model = Test::ReadWhole<char>(KALVRIN_MODELS "/separator.onnx");
  const std::unique_ptr<StreamProcessor> stream(CreateStreamProcessor(
      model.data(), model.size(), sequenceSize, channels.size(), blockFrames));
  if (!stream) throw std::runtime_error("the library refuses the model");
  EXPECT_EQ(stream->GetSampleRate(), 16000);
  EXPECT_TRUE(stream->SetMasterGain(1.0f) && stream->SetAudioClassGain(name, 1.0f));

  const std::uint64_t latency = LatencyFrames(512, 0, sequenceSize, blockFrames);
  return TestSupport::Rendered(*stream, latency, blockFrames, std::move(channels));
}

TEST(SeparatorTest, PullsSpeechAndMusicApart) {
  struct Row {
    const char* name;
    double speechToMusic, leastSpeechGain, leastMusicGain;  // dB
  };
  constexpr Row rows[] = {
      {"speech below music", -5.0, 6.5, 3.0},
      {"as loud as each other", 0.0, 6.5, 6.5},
      {"speech far above music", 15.0, 3.5, 15.0},
  };
  const auto sources = ReadExcerpt();
  std::vector<Signal> mixes;
  for (const Row& row : rows) {
    const auto musicGain = static_cast<float>(std::pow(10.0, -row.speechToMusic / 20.0));
    Signal& mix = mixes.emplace_back(sources[0]);
    for (std::size_t n = 0; n < mix.size(); ++n)
      mix[n] += musicGain * sources[1][n];
  }
  const auto speech = Extract(u"Speech", mixes, 4), music = Extract(u"Music", mixes, 4);
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].name);
    const auto gain = [&](const Signal& estimate, const Signal& target) {
      return SignalRatio(estimate, target) - SignalRatio(mixes[i], target);
    };
    EXPECT_GE(gain(speech[i], sources[0]), rows[i].leastSpeechGain);
    EXPECT_GE(gain(music[i], sources[1]), rows[i].leastMusicGain);
  }
}

TEST(SeparatorTest, LeavesWhatIsAloneAlone) {
  const auto sources = ReadExcerpt();
  const auto speech = Extract(u"Speech", sources, 1), music = Extract(u"Music", sources, 1);
  EXPECT_LE(Level(music[0], sources[0]), -30.0) << "music heard in speech";
  EXPECT_LE(Level(speech[1], sources[1]), -35.0) << "speech heard in music";
  EXPECT_GE(SignalRatio(speech[0], sources[0]), 28.0) << "speech kept";
  EXPECT_GE(SignalRatio(music[1], sources[1]), 30.0) << "music kept";

  const auto alone = Extract(u"Speech", {sources[1]}, 7);
  double worst = 0.0;
  for (std::size_t n = 0; n < alone[0].size(); ++n)
    worst = std::max(worst, std::abs(double{speech[1][n]} - alone[0][n]));
  EXPECT_LE(worst, 1e-5) << "other channels or the size of the sequence change it";
}

}  // namespace
}  // namespace Orvik::Tesmo
