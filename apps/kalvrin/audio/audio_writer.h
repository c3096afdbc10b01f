#pragma once

#include "audio/audio_format.h"
#include "audio/audio_reader.h"
#include "audio/output_file.h"
#include "audio/sound_stream.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// Writes one audio file from start to end. It appears under its name at Commit, or never.
class AudioWriter {
public:
  /// `expectedFrames`, if known, chooses between WAV and its form for more than 4 GiB; more or
  /// fewer may come. Refusal where the file cannot be made or the format does not go with the
  /// channels or the rate.
  AudioWriter(const std::string& path, const AudioFormat& format, int channelCount,
              int sampleRateHz, std::optional<std::uint64_t> expectedFrames, const AudioTags& tags);

  /// `interleaved`: whole frames, full scale 1. Refusal where the disk is full and the like.
  void Write(std::span<const float> interleaved);

  /// Ends the file; Refusal where it cannot be ended.
  void Finish();
  /// After Finish: the file gets its name.
  void Commit() { file.Commit(); }

  const std::string& Name() const { return file.Name(); }
  /// Samples louder than full scale, cut to it. Always 0 for float samples.
  std::uint64_t ClippedSamples() const { return clipped; }
  /// Samples that were no finite numbers, written as 0.
  std::uint64_t NonFiniteSamples() const { return nonFinite; }

private:
  void SetTags(const AudioTags& tags);
  [[noreturn]] void RefuseToWrite() const;

  OutputFile file;
  int channels;
  int bits;
  SF_INFO info;
  SoundStream sound;
  std::vector<float> finite;
  std::vector<std::int32_t> quantized;
  bool isEmpty = true;
  std::uint64_t clipped = 0;
  std::uint64_t nonFinite = 0;
};

}  // namespace Orvik::Tesmo::Tool
