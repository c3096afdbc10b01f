#include "audio/audio_writer.h"

#include "audio/quantize.h"
#include "command_line/errors.h"

#include <algorithm>

namespace Orvik::Tesmo::Tool {
namespace {

/// libsndfile's number, with the variant of WAV that the sizes need.
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

/// Refusal where the format does not go with the channels or the rate.
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
  // What turns out to fit becomes a plain WAV at the end.
  sf_command(handle, SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
  // The peak chunk holds the time of day; without it equal renders are equal files.
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
  // Encoders keep some of their scratch on the stack, by the size of a call.
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
  // FLAC's header comes with the first frame; without one it has to be asked for.
  const bool isFlac = (info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC;
  if (isFlac && isEmpty) sf_command(sound.Handle(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
  sound.Close();
  if (sound.SystemError() != 0) RefuseToWrite();
}

void AudioWriter::RefuseToWrite() const {
  throw Refusal("cannot write " + file.Name() + ": " + sound.ErrorText());
}

}  // namespace Orvik::Tesmo::Tool
