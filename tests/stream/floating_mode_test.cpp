// Streams on a thread whose floating-point mode the host has set: they work in it, within its
// rounding, and leave it as it was.

#include "kalvrin/stream_processor.h"

#include "stream/engine_models.h"
#include "support/floating_mode.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::StreamProcessor;

struct Row {
  const char* name;
  std::string model;
  double tolerance;  ///< of samples of full scale 1, in another rounding
};

/// 60 blocks of two channels of noise, made and run in `mode`; the classes alone are heard.
std::vector<float> Output(const std::string& model, const FloatingMode& mode) {
  constexpr std::size_t frames = 100, blocks = 60;
  std::mt19937 generator(3);
  std::uniform_real_distribution<float> level(-0.5F, 0.5F);
  std::vector<float> samples(2 * frames), output;
  float* const channels[] = {samples.data(), samples.data() + frames};
  std::unique_ptr<StreamProcessor> stream;
  InMode in(mode);
  in.Run([&] { stream.reset(CreateStreamProcessor(model.data(), model.size(), 2, 2, frames)); });
  if (!stream) return {};
  stream->ResetGains();
  stream->SetAudioClassGain(u"Rest", 0);
  for (std::size_t block = 0; block < blocks; ++block) {
    for (float& sample : samples)
      sample = level(generator);
    in.Run([&] { stream->ProcessBlock(channels, channels, frames, 1); });
    output.insert(output.end(), samples.begin(), samples.end());
  }
  return output;
}

TEST(FloatingMode, StreamsWorkInTheHostsAndKeepIt) {
  const StreamSizes samples = {.hop = 64}, spectra = {.hop = 240, .isSpectral = true};
  const Row rows[] = {
      {"samples", MakeAudioModel(PassThroughModel(samples)), 1e-6},
      {"spectra", MakeAudioModel(PassThroughModel(spectra)), 4e-6},
      {"band_splitter", RecipeModel("band_splitter"), 2e-5},
      {"noise_reducer", RecipeModel("noise_reducer"), 1e-6},
      {"separator", RecipeModel("separator"), 2e-5},
  };
  for (const Row& row : rows) {
    const std::vector<float> usual = Output(row.model, floatingModes[0]);
    ASSERT_FALSE(usual.empty()) << row.name;
    for (const FloatingMode& mode : floatingModes) {
      SCOPED_TRACE(std::string(row.name) + ", " + mode.name);
      const std::vector<float> output = Output(row.model, mode);
      ASSERT_EQ(output.size(), usual.size());
      double worst = 0;
      for (std::size_t i = 0; i < output.size(); ++i)
        worst = std::max(worst, std::abs(static_cast<double>(output[i]) - usual[i]));
      EXPECT_LE(worst, mode.Rounds() ? row.tolerance : 0.0);
    }
  }
}

}  // namespace
