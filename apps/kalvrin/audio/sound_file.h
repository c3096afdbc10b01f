#pragma once

// Audio files, read and written through libsndfile.

#include "audio/formats.h"
#include "system/files.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <sndfile.h>
#include <span>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// One libsndfile handle over a file descriptor that the caller keeps open. Unlike the library's
/// own road over a descriptor, this one keeps the error of the system call that failed.
class SoundStream {
public:
  /// `mode` SFM_READ or SFM_WRITE; `info` as sf_open has it. On failure Handle is null.
  SoundStream(int fd, int mode, SF_INFO& info);

  SNDFILE* Handle() const { return handle.get(); }

  /// Writes what is still held back and ends the handle.
  void Close();

  /// errno of the first system call that failed; 0 for none.
  int SystemError() const { return io->error; }

  /// The system's words where it failed, otherwise libsndfile's.
  std::string ErrorText() const;

private:
  struct Io {
    int fd;
    int error = 0;
  };
  struct Closer {
    void operator()(SNDFILE* file) const { sf_close(file); }
  };
  static sf_count_t Noted(Io& io, sf_count_t result);
  template <class Step>
  static sf_count_t MoveAll(Io& io, sf_count_t count, Step step);
  static SF_VIRTUAL_IO Operations();

  std::unique_ptr<Io> io;  // libsndfile holds its address
  std::unique_ptr<SNDFILE, Closer> handle;
};

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

/// Rounds samples (full scale 1) to `bits` bits, left-justified in 32, as libsndfile takes them.
/// What lies outside is cut to full scale; the result is how many samples were. `out` has the size
/// of `in`. A sample that came from `bits` bits goes back to the very same bits.
std::uint64_t Quantize(std::span<const float> in, int bits, std::span<std::int32_t> out);

/// Sets samples that are no finite numbers to 0; gives their count.
std::uint64_t SilenceNonFinite(std::span<float> samples);

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
