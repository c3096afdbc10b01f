#include "audio/sound_file.h"

#include "command_line/errors.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <sys/stat.h>
#include <unistd.h>

namespace Orvik::Tesmo::Tool {
namespace {

/// libsndfile's number of the format, with the variant of WAV that channels and length need.
int FormatNumber(const AudioFormat& format, int channels, std::optional<std::uint64_t> frames,
                 bool hasMap) {
  int container = format.container;
  if (container == SF_FORMAT_WAV) {
    // A little room for the chunks around the samples.
    constexpr double wavLimit = 4294967295.0 - 65536;
    const double bytesPerSample = std::max(BitsOf(format.encoding), 32) / 8.0;
    if (!frames || static_cast<double>(*frames) * channels * bytesPerSample > wavLimit)
      container = SF_FORMAT_RF64;
    else if (channels > 2 || hasMap)
      container = SF_FORMAT_WAVEX;
  }
  return container | format.encoding;
}

/// Throws Refusal where the format does not take so many channels or this rate.
SF_INFO MakeInfo(const AudioFormat& format, int number, int channels, int rate) {
  SF_INFO info{};
  info.format = number;
  info.channels = channels;
  info.samplerate = rate;
  if (sf_format_check(&info)) return info;
  const bool isFlac = format.container == SF_FORMAT_FLAC;
  const std::string limit = isFlac && channels > 8 ? "FLAC holds at most 8 channels; " : "";
  throw Refusal(FormatText(format) + " cannot hold " + std::to_string(channels) + " channels at " +
                std::to_string(rate) + " Hz; " + limit + "write a .wav");
}

}  // namespace

/// Returns `result` of a system call, and keeps its error for SystemError: libsndfile ignores some.
/// EINVAL is no failure of the system: a damaged file makes libsndfile seek to impossible places.
sf_count_t SoundStream::Noted(Io& io, sf_count_t result) {
  if (result < 0 && io.error == 0 && errno != EINVAL) io.error = errno;
  return result;
}

/// Repeats `step` until `count` bytes have moved or no more come; returns how many have moved.
template <class Step>
sf_count_t SoundStream::MoveAll(Io& io, sf_count_t count, Step step) {
  sf_count_t done = 0;
  while (done < count) {
    const ssize_t moved = step(io.fd, done, static_cast<std::size_t>(count - done));
    if (moved < 0 && errno == EINTR) continue;
    if (Noted(io, moved) <= 0) break;
    done += moved;
  }
  return done;
}

SF_VIRTUAL_IO SoundStream::Operations() {
  SF_VIRTUAL_IO operations{};
  operations.get_filelen = [](void* data) -> sf_count_t {
    auto& io = *static_cast<Io*>(data);
    struct stat status {};
    return Noted(io, fstat(io.fd, &status)) == 0 ? status.st_size : -1;
  };
  operations.seek = [](sf_count_t offset, int whence, void* data) -> sf_count_t {
    auto& io = *static_cast<Io*>(data);
    return Noted(io, lseek(io.fd, offset, whence));
  };
  operations.tell = [](void* data) -> sf_count_t {
    auto& io = *static_cast<Io*>(data);
    return Noted(io, lseek(io.fd, 0, SEEK_CUR));
  };
  // libsndfile takes a short read for the end of the file, and a short write for a full disk.
  operations.read = [](void* bytes, sf_count_t count, void* data) -> sf_count_t {
    auto* const rest = static_cast<char*>(bytes);
    return MoveAll(*static_cast<Io*>(data), count, [&](int fd, sf_count_t done, std::size_t size) {
      return read(fd, rest + done, size);
    });
  };
  operations.write = [](const void* bytes, sf_count_t count, void* data) -> sf_count_t {
    const auto* const rest = static_cast<const char*>(bytes);
    return MoveAll(*static_cast<Io*>(data), count, [&](int fd, sf_count_t done, std::size_t size) {
      return write(fd, rest + done, size);
    });
  };
  return operations;
}

SoundStream::SoundStream(int fd, int mode, SF_INFO& info) : io(new Io{fd}) {
  SF_VIRTUAL_IO operations = Operations();
  handle.reset(sf_open_virtual(&operations, mode, &info, io.get()));
}

void SoundStream::Close() {
  handle.reset();
}

std::string SoundStream::ErrorText() const {
  std::string text = io->error != 0 ? SystemErrorText(io->error) : sf_strerror(handle.get());
  while (text.ends_with('.') || text.ends_with(' '))
    text.pop_back();
  return text;
}

AudioReader::AudioReader(const std::string& path) : file(path), sound(file.Get(), SFM_READ, info) {
  if (!sound.Handle() || sound.SystemError() != 0)
    throw Refusal(file.Name() + " is no audio that can be read: " + sound.ErrorText());
}

std::optional<std::uint64_t> AudioReader::FrameCount() const {
  if (info.frames < 0 || info.frames == SF_COUNT_MAX) return std::nullopt;
  return static_cast<std::uint64_t>(info.frames);
}

AudioTags AudioReader::Tags() const {
  AudioTags tags;
  for (int tag = SF_STR_FIRST; tag <= SF_STR_LAST; ++tag) {
    const char* text = sf_get_string(sound.Handle(), tag);
    if (text && *text) tags.texts[tag] = text;
  }
  tags.channelMap.resize(static_cast<std::size_t>(info.channels));
  const int size = info.channels * static_cast<int>(sizeof(int));
  if (!sf_command(sound.Handle(), SFC_GET_CHANNEL_MAP_INFO, tags.channelMap.data(), size))
    tags.channelMap.clear();
  return tags;
}

std::size_t AudioReader::Read(float* interleaved, std::size_t frames) {
  const sf_count_t done =
      sf_readf_float(sound.Handle(), interleaved, static_cast<sf_count_t>(frames));
  const auto count = static_cast<std::size_t>(done < 0 ? 0 : done);
  if (sound.SystemError() != 0 || (count < frames && sf_error(sound.Handle()) != 0)) {
    const double second = static_cast<double>(position + count) / info.samplerate;
    throw Refusal(file.Name() + " cannot be read past " + std::to_string(second) +
                  " s: " + sound.ErrorText());
  }
  const auto channels = static_cast<std::size_t>(info.channels);
  for (std::size_t i = 0; i < count * channels; ++i) {
    if (std::isfinite(interleaved[i])) continue;
    interleaved[i] = 0;
    if (nonFinite++ == 0) firstNonFinite = position + i / channels;
  }
  position += count;
  return count;
}

std::uint64_t Quantize(std::span<const float> in, int bits, std::span<std::int32_t> out) {
  const double scale = std::ldexp(1.0, bits - 1);
  const double unit = std::ldexp(1.0, 32 - bits);
  std::uint64_t cut = 0;
  for (std::size_t i = 0; i < in.size(); ++i) {
    const double level = std::nearbyint(in[i] * scale);
    const double held = std::clamp(level, -scale, scale - 1);
    // 1.0 is one step too high for two's complement: it is cut, but not counted as clipped.
    if (held != level && std::abs(in[i]) > 1) ++cut;
    out[i] = static_cast<std::int32_t>(held * unit);
  }
  return cut;
}

std::uint64_t SilenceNonFinite(std::span<float> samples) {
  std::uint64_t count = 0;
  for (float& sample : samples) {
    if (std::isfinite(sample)) continue;
    sample = 0;
    ++count;
  }
  return count;
}

AudioWriter::AudioWriter(const std::string& path, const AudioFormat& format, int channelCount,
                         int sampleRateHz, std::optional<std::uint64_t> expectedFrames,
                         const AudioTags& tags)
    : file(path), channels(channelCount), bits(BitsOf(format.encoding)),
      info(MakeInfo(format,
                    FormatNumber(format, channels, expectedFrames, !tags.channelMap.empty()),
                    channels, sampleRateHz)),
      sound(file.Get(), SFM_WRITE, info) {
  if (!sound.Handle()) RefuseToWrite();
  SetTags(tags);
}

void AudioWriter::SetTags(const AudioTags& tags) {
  SNDFILE* handle = sound.Handle();
  // RF64 that turns out to be short enough becomes a plain WAV at the end.
  sf_command(handle, SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
  // The peak chunk holds the time of day: without it, equal renders make equal files.
  sf_command(handle, SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
  double quality = 0.6;
  sf_command(handle, SFC_SET_VBR_ENCODING_QUALITY, &quality, sizeof quality);
  for (const auto& [tag, text] : tags.texts)
    sf_set_string(handle, tag, text.c_str());
  if (tags.channelMap.size() == static_cast<std::size_t>(channels)) {
    std::vector<int> map = tags.channelMap;
    sf_command(handle, SFC_SET_CHANNEL_MAP_INFO, map.data(),
               static_cast<int>(map.size() * sizeof(int)));
  }
}

void AudioWriter::Write(std::span<const float> interleaved) {
  // Some encoders need stack in proportion to the length of a call.
  constexpr std::size_t framesAtOnce = 4096;
  const std::size_t step = framesAtOnce * static_cast<std::size_t>(channels);
  for (std::size_t start = 0; start < interleaved.size(); start += step) {
    const auto part = interleaved.subspan(start, std::min(step, interleaved.size() - start));
    finite.assign(part.begin(), part.end());
    nonFinite += SilenceNonFinite(finite);
    isEmpty = false;
    const auto frames = static_cast<sf_count_t>(part.size()) / channels;
    sf_count_t done = 0;
    if (bits != 0) {
      quantized.resize(part.size());
      clipped += Quantize(finite, bits, quantized);
      done = sf_writef_int(sound.Handle(), quantized.data(), frames);
    } else {
      done = sf_writef_float(sound.Handle(), finite.data(), frames);
    }
    if (done != frames || sound.SystemError() != 0) RefuseToWrite();
  }
}

void AudioWriter::Finish() {
  // libsndfile writes FLAC's header with the first frame. A file without a frame needs this call.
  const bool isFlac = (info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC;
  if (isFlac && isEmpty) sf_command(sound.Handle(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
  sound.Close();
  if (sound.SystemError() != 0) RefuseToWrite();
}

void AudioWriter::RefuseToWrite() const {
  throw Refusal("cannot write " + file.Name() + ": " + sound.ErrorText());
}

}  // namespace Orvik::Tesmo::Tool
