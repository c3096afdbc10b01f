#pragma once

#include "audio/input_file.h"
#include "audio/sound_stream.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// What belongs to the audio beside its samples and goes from the input to the output.
struct AudioTags {
  std::map<int, std::string> texts;  // by libsndfile's number: title, artist, ...
  std::vector<int> channelMap;       // empty when the file does not say
};

/// Reads an audio file from start to end as interleaved floats, full scale 1.
class AudioReader {
public:
  /// "-" is standard input. Refusal where the file cannot be read or is no audio.
  explicit AudioReader(const std::string& path);

  const std::string& Name() const { return file.Name(); }
  int SampleRate() const { return info.samplerate; }
  int ChannelCount() const { return info.channels; }
  /// As far as the file declares it; what Read gives counts.
  std::optional<std::uint64_t> FrameCount() const;
  /// libsndfile's number.
  int Format() const { return info.format; }
  AudioTags Tags() const;

  /// Gives the frames read, less than `frames` at the end only. Samples that are no finite numbers
  /// come as 0. Refusal where the file breaks off in an error.
  std::size_t Read(float* interleaved, std::size_t frames);

  /// Samples that were no finite numbers so far, and the frame of the first of them.
  std::uint64_t NonFiniteSamples() const { return nonFinite; }
  std::uint64_t FirstNonFiniteFrame() const { return firstNonFinite; }

private:
  InputFile file;
  SF_INFO info{};
  SoundStream sound;
  std::uint64_t position = 0;
  std::uint64_t nonFinite = 0;
  std::uint64_t firstNonFinite = 0;
};

}  // namespace Orvik::Tesmo::Tool
