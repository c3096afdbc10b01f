#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TestSupport {

/// Interleaved audio, full scale 1, with libsndfile's number of its format.
struct Audio {
  int rate = 48000;
  int channels = 1;
  int format = 0;
  std::vector<float> samples = {};

  std::size_t Frames() const { return samples.size() / static_cast<std::size_t>(channels); }
};

/// 32-bit float WAV where `format` is 0.
void WriteAudio(const std::string& path, const Audio& audio);
/// Fails the test where the file is no audio.
Audio ReadAudio(const std::string& path);

/// Noise within half of full scale, on 16-bit steps so that every format holds it exactly.
Audio MakeNoise(std::size_t frames, int channels, std::uint64_t seed);

/// The greatest difference of two signals; infinity where their lengths differ.
double GreatestDifference(const std::vector<float>& a, const std::vector<float>& b);

}  // namespace TestSupport
