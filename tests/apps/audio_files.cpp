#include "apps/audio_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <sndfile.hh>

namespace TestSupport {

void WriteAudio(const std::string& path, const Audio& audio) {
  const int format = audio.format != 0 ? audio.format : SF_FORMAT_WAV | SF_FORMAT_FLOAT;
  SndfileHandle file(path, SFM_WRITE, format, audio.channels, audio.rate);
  const auto frames = static_cast<sf_count_t>(audio.Frames());
  EXPECT_EQ(file.writef(audio.samples.data(), frames), frames) << path << file.strError();
}

Audio ReadAudio(const std::string& path) {
  SndfileHandle file(path);
  if (file.error()) {
    ADD_FAILURE() << path << ": " << file.strError();
    return {};
  }
  // A FLAC without a frame cannot say so: its length is unknown.
  const sf_count_t frames = file.frames() == SF_COUNT_MAX ? 0 : file.frames();
  Audio audio{file.samplerate(), file.channels(), file.format(), {}};
  audio.samples.resize(static_cast<std::size_t>(frames * audio.channels));
  EXPECT_EQ(file.readf(audio.samples.data(), frames), frames) << path;
  float more[64] = {};
  EXPECT_EQ(file.readf(more, 1), 0) << path << " is longer than it says";
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
