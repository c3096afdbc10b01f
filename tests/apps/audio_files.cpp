#include "apps/audio_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <sndfile.h>

namespace TestSupport {

void WriteAudio(const std::string& path, const Audio& audio) {
  SF_INFO info{};
  info.samplerate = audio.rate;
  info.channels = audio.channels;
  info.format = audio.format != 0 ? audio.format : SF_FORMAT_WAV | SF_FORMAT_FLOAT;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr) << path << ": " << sf_strerror(nullptr);
  const auto frames = static_cast<sf_count_t>(audio.Frames());
  EXPECT_EQ(sf_writef_float(file, audio.samples.data(), frames), frames) << path;
  sf_close(file);
}

Audio ReadAudio(const std::string& path) {
  SF_INFO info{};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  if (!file) {
    ADD_FAILURE() << path << ": " << sf_strerror(nullptr);
    return {};
  }
  Audio audio{info.samplerate, info.channels, info.format, {}};
  // A FLAC without a frame cannot say so: its length is unknown.
  if (info.frames == SF_COUNT_MAX) info.frames = 0;
  audio.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
  EXPECT_EQ(sf_readf_float(file, audio.samples.data(), info.frames), info.frames) << path;
  float more[64] = {};
  EXPECT_EQ(sf_readf_float(file, more, 1), 0) << path << " is longer than it says";
  sf_close(file);
  return audio;
}

Audio MakeNoise(std::size_t frames, int channels, std::uint64_t seed) {
  Audio audio;
  audio.channels = channels;
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<int> level(-16384, 16383);
  for (std::size_t i = 0; i < frames * static_cast<std::size_t>(channels); ++i)
    audio.samples.push_back(static_cast<float>(level(random)) / 32768);
  return audio;
}

double GreatestDifference(const std::vector<float>& a, const std::vector<float>& b) {
  if (a.size() != b.size()) return std::numeric_limits<double>::infinity();
  double greatest = 0;
  for (std::size_t i = 0; i < a.size(); ++i)
    greatest = std::max(greatest, std::abs(static_cast<double>(a[i]) - b[i]));
  return greatest;
}

}  // namespace TestSupport
