// Runs the models of the recipes through the library and the real engine, block by block, and
// compares with the recipes' own definitions in double.

#include "models/recipe_audio.h"
#include "support/rendered.h"

#include <kalvrin/stream_processor.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>

namespace Orvik::Tesmo {
namespace {

using Test::RecipeAudio;

struct Recipe {
  std::vector<const char16_t*> classes;
  std::uint64_t windowLength, lookaheadBlocks;
};

const std::map<std::string, Recipe> recipes = {
    {"band_splitter", {{u"Low", u"Voice", u"High"}, 512, 0}},
    {"noise_reducer", {{u"Speech"}, 512, 0}},
    {"harmonic_percussive", {{u"Harmonic", u"Percussive"}, 1024, 3}},
};

struct Row {
  const char* name;
  const char* recipe;
  std::uint64_t channels, sequenceSize, blockFrames;
};

constexpr Row rows[] = {
    {"bands, a window at a time", "band_splitter", 2, 1, 256},
    {"bands, mono, small blocks", "band_splitter", 1, 2, 64},
    {"bands, ragged blocks", "band_splitter", 3, 4, 300},
    {"noise, a window at a time", "noise_reducer", 2, 1, 256},
    {"noise, loop over a sequence", "noise_reducer", 3, 5, 100},
    {"noise, mono, blocks as long as the run", "noise_reducer", 1, 4, 1024},
    {"music, a window at a time", "harmonic_percussive", 1, 1, 256},
    {"music, lookahead longer than the sequence", "harmonic_percussive", 2, 2, 128},
    {"music, lookahead shorter than the sequence", "harmonic_percussive", 2, 4, 777},
};

/// Made once for each recipe.
const RecipeAudio& AudioOf(const std::string& recipe) {
  static std::map<std::string, RecipeAudio> made;
  return made.try_emplace(recipe, recipe).first->second;
}

using Planar = std::vector<std::vector<float>>;

/// The output of a stream of `row` after `setGains` has set its gains, without the latency.
template <class SetGains>
Planar Render(const Row& row, const RecipeAudio& audio, SetGains setGains) {
  const Recipe& recipe = recipes.at(row.recipe);
  const std::unique_ptr<StreamProcessor> stream(CreateStreamProcessor(
      audio.model.data(), audio.model.size(), row.sequenceSize, row.channels, row.blockFrames));
  if (!stream) throw std::runtime_error("the library refuses the model");
  EXPECT_EQ(stream->GetSampleRate(), 16000);
  setGains(*stream);

  const std::uint64_t latency =
      LatencyFrames(recipe.windowLength, recipe.lookaheadBlocks, row.sequenceSize, row.blockFrames);
  Planar channels;
  for (std::size_t c = 0; c < row.channels; ++c)
    channels.emplace_back(audio.Input(c).begin(), audio.Input(c).end());
  return TestSupport::Rendered(*stream, latency, row.blockFrames, channels);
}

/// `expected(c, n)` returns the value for channel c and frame n, in double.
template <class Expected>
void ExpectNear(const Planar& actual, Expected expected, double tolerance) {
  for (std::size_t c = 0; c < actual.size(); ++c) {
    double worst = 0.0;
    std::size_t where = 0;
    for (std::size_t n = 0; n < actual[c].size(); ++n) {
      const double error = std::abs(actual[c][n] - expected(c, n));
      if (!(error <= worst)) worst = error, where = n;
    }
    EXPECT_LE(worst, tolerance) << "channel " << c << ", frame " << where;
  }
}

TEST(ModelsTest, EachClassAndTheRestEqualTheDefinitionOfTheRecipe) {
  constexpr double tolerance = 2e-6;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const RecipeAudio& audio = AudioOf(row.recipe);
    const auto& classes = recipes.at(row.recipe).classes;
    ASSERT_EQ(audio.ClassCount(), classes.size());

    std::vector<const char16_t*> names = classes;
    names.push_back(u"Rest");
    for (std::size_t k = 0; k < names.size(); ++k) {
      SCOPED_TRACE(testing::PrintToString(std::u16string(names[k])));
      const Planar output = Render(row, audio, [&](StreamProcessor& stream) {
        EXPECT_TRUE(stream.SetMasterGain(1.0f));
        EXPECT_TRUE(stream.SetAudioClassGain(names[k], 1.0f));
      });
      ExpectNear(
          output,
          [&](std::size_t c, std::size_t n) {
            if (k < classes.size()) return double{audio.Class(k, c)[n]};
            double rest = audio.Input(c)[n];
            for (std::size_t other = 0; other < classes.size(); ++other)
              rest -= audio.Class(other, c)[n];
            return rest;
          },
          tolerance);
    }
  }
}

TEST(ModelsTest, TheDefinedBandsSumToTheInput) {
  const RecipeAudio& audio = AudioOf("band_splitter");
  double worst = 0.0;
  for (std::size_t c = 0; c < RecipeAudio::channels; ++c)
    for (std::size_t n = 0; n < RecipeAudio::frames; ++n)
      worst = std::max(worst, std::abs(audio.Class(0, c)[n] + audio.Class(1, c)[n] +
                                       double{audio.Class(2, c)[n]} - audio.Input(c)[n]));
  EXPECT_LE(worst, 2e-7);
}

}  // namespace
}  // namespace Orvik::Tesmo
