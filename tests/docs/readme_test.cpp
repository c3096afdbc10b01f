// Runs the host that the README shows and checks what the README says about it.

#include "models/recipe_audio.h"

#include <gtest/gtest.h>

#include <cstdint>

/// Defined in README.md.
std::uint64_t Denoise(const std::vector<char>& model, std::vector<float*> channels, int frames);

namespace Orvik::Tesmo {
namespace {

TEST(ReadmeTest, TheHostLowersTheNoiseAndReturnsItsLatency) {
  const Tesmo::Test::RecipeAudio audio("noise_reducer");
  std::vector<std::vector<float>> channels;
  for (std::size_t c = 0; c < 2; ++c) {
    const auto input = audio.Input(c);
    channels.emplace_back(input.begin(), input.end());
  }
  const std::size_t latency =
      Denoise(audio.model, {channels[0].data(), channels[1].data()}, audio.frames);
  ASSERT_EQ(latency, 512u);

  constexpr std::size_t processed = Tesmo::Test::RecipeAudio::frames / 256 * 256;
  for (std::size_t c = 0; c < 2; ++c)
    for (std::size_t n = latency; n < processed; ++n) {
      const float speech = audio.Class(0, c)[n - latency], input = audio.Input(c)[n - latency];
      ASSERT_NEAR(channels[c][n], speech + 0.1f * (input - speech), 2e-6f)
          << "channel " << c << ", frame " << n;
    }
}

TEST(ReadmeTest, TheHostReturnsZeroForABadModel) {
  std::vector<float> left(256), right(256);
  EXPECT_EQ(Denoise({'n', 'o'}, {left.data(), right.data()}, 256), 0u);
}

}  // namespace
}  // namespace Orvik::Tesmo
