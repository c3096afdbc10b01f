// Streams on a thread whose floating-point mode the host has set: they work in it, within its
// rounding, and leave it as it was.

#include "kalvrin/stream_processor.h"

#include "stream/engine_models.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <xmmintrin.h>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::StreamProcessor;

/// The mode for a scope.
class InMode {
public:
  explicit InMode(unsigned mode) : before(_mm_getcsr()) { _mm_setcsr(mode); }
  ~InMode() { _mm_setcsr(before); }
  InMode(const InMode&) = delete;
  InMode& operator=(const InMode&) = delete;

private:
  unsigned before;
};

constexpr unsigned control = 0xFFC0, allMasked = 0x1F80;
constexpr unsigned daz = 0x0040, ftz = 0x8000, down = 0x2000, up = 0x4000, towardZero = 0x6000;
constexpr struct {
  const char* name;
  unsigned csr;
  bool rounds;  ///< otherwise than usual
} modes[] = {
    {"flush to zero, denormals are zero", allMasked | ftz | daz, false},
    {"rounding down", allMasked | down, true},
    {"rounding up", allMasked | up, true},
    {"rounding toward zero", allMasked | towardZero, true},
    {"invalid, division by zero and overflow unmasked", allMasked & ~0x0680U, false},
};

struct Row {
  const char* name;
  std::string model;
  double tolerance;  ///< of samples of full scale 1, in another rounding
};

std::string ReadModel(const std::string& recipe) {
  std::ifstream file(KALVRIN_MODELS "/" + recipe + ".onnx", std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// 60 blocks of two channels of noise, made and run in `mode`; the classes alone are heard.
std::vector<float> Output(const std::string& model, unsigned mode) {
  constexpr std::size_t frames = 100, blocks = 60;
  std::mt19937 generator(3);
  std::uniform_real_distribution<float> level(-0.5F, 0.5F);
  std::vector<float> samples(2 * frames), output;
  const InMode in(mode);
  const std::unique_ptr<StreamProcessor> stream(
      CreateStreamProcessor(model.data(), model.size(), 2, 2, frames));
  EXPECT_EQ(_mm_getcsr() & control, mode & control) << "the creation";
  if (!stream) return {};
  stream->ResetGains();
  stream->SetAudioClassGain(u"Rest", 0);
  float* const channels[] = {samples.data(), samples.data() + frames};
  for (std::size_t block = 0; block < blocks; ++block) {
    for (float& sample : samples)
      sample = level(generator);
    stream->ProcessBlock(channels, channels, frames, 1);
    EXPECT_EQ(_mm_getcsr() & control, mode & control) << "block " << block;
    output.insert(output.end(), samples.begin(), samples.end());
  }
  return output;
}

TEST(FloatingMode, StreamsWorkInTheHostsAndKeepIt) {
  const StreamSizes samples = {.hop = 64}, spectra = {.hop = 240, .isSpectral = true};
  const Row rows[] = {
      {"samples", MakeAudioModel(PassThroughModel(samples)), 1e-6},
      {"spectra", MakeAudioModel(PassThroughModel(spectra)), 4e-6},
      {"band_splitter", ReadModel("band_splitter"), 2e-5},
      {"noise_reducer", ReadModel("noise_reducer"), 1e-6},
      {"separator", ReadModel("separator"), 2e-5},
  };
  for (const Row& row : rows) {
    const std::vector<float> usual = Output(row.model, allMasked);
    ASSERT_FALSE(usual.empty()) << row.name;
    for (const auto& mode : modes) {
      SCOPED_TRACE(std::string(row.name) + ", " + mode.name);
      const std::vector<float> output = Output(row.model, mode.csr);
      ASSERT_EQ(output.size(), usual.size());
      double worst = 0;
      for (std::size_t i = 0; i < output.size(); ++i)
        worst = std::max(worst, std::abs(static_cast<double>(output[i]) - usual[i]));
      EXPECT_LE(worst, mode.rounds ? row.tolerance : 0.0);
    }
  }
}

}  // namespace
