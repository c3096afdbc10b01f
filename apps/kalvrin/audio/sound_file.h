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

/// One libsndfile handle over a file descriptor that the caller keeps open. sf_open_fd would lose
/// the error of a system call that failed; this class keeps it.
class SoundStream {
public:
  /// `mode` SFM_READ or SFM_WRITE; `info` as sf_open has it. On failure Handle is null.
  SoundStream(int fd, int mode, SF_INFO& info);

  SNDFILE* Handle() const { return handle.get(); }

  /// Writes what libsndfile still buffers and closes the handle.
  void Close();

  /// errno of the first system call that failed; 0 for none.
  int SystemError() const { return io->error; }

  /// The text of the system's error where a call failed, otherwise libsndfile's.
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

/// What is copied from the input to the output beside the samples.
struct AudioTags {
  std::map<int, std::string> texts;  // by libsndfile's number: title, artist, ...
  std::vector<int> channelMap;       // empty when the file does not say
};

/// Reads an audio file from start to end as interleaved floats, full scale 1.
class AudioReader {
public:
  /// "-" is standard input. Throws Refusal where the file cannot be read or is no audio.
  explicit AudioReader(const std::string& path);

  const std::string& Name() const { return file.Name(); }
  int SampleRate() const { return info.samplerate; }
  int ChannelCount() const { return info.channels; }
  /// What the file declares, if it does. The frames that Read returns can be more or fewer.
  std::optional<std::uint64_t> FrameCount() const;
  /// libsndfile's number.
  int Format() const { return info.format; }
  AudioTags Tags() const;

  /// Returns the number of frames read, less than `frames` only at the end. NaN and infinite
  /// samples become 0. Throws Refusal where the file cannot be read further.
  std::size_t Read(float* interleaved, std::size_t frames);

  /// How many samples were NaN or infinite so far, and the frame of the first of them.
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
/// Louder samples are cut to full scale; returns how many were. `out` has the size of `in`. A
/// sample that was read from `bits` bits comes back bit for bit.
std::uint64_t Quantize(std::span<const float> in, int bits, std::span<std::int32_t> out);

/// Sets NaN and infinite samples to 0 and returns their number.
std::uint64_t SilenceNonFinite(std::span<float> samples);

/// Writes one audio file from start to end. It gets its name at Commit; without that, no file
/// appears.
class AudioWriter {
public:
  /// `expectedFrames`, if known, chooses between WAV and RF64, its form for more than 4 GiB; more
  /// or fewer frames may be written. Throws Refusal where the file cannot be made, or the format
  /// does not take so many channels or this rate.
  AudioWriter(const std::string& path, const AudioFormat& format, int channelCount,
              int sampleRateHz, std::optional<std::uint64_t> expectedFrames, const AudioTags& tags);

  /// `interleaved`: whole frames, full scale 1. Throws Refusal where it cannot write: a full disk.
  void Write(std::span<const float> interleaved);

  /// Completes the file's contents. Throws Refusal where it cannot write.
  void Finish();
  /// After Finish: the file gets its name.
  void Commit() { file.Commit(); }

  const std::string& Name() const { return file.Name(); }
  /// Samples louder than full scale, cut to it. Always 0 for float samples.
  std::uint64_t ClippedSamples() const { return clipped; }
  /// Samples that were NaN or infinite, written as 0.
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
