#include "audio/audio_reader.h"

#include "command_line/errors.h"

#include <cmath>

namespace Orvik::Tesmo::Tool {

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

}  // namespace Orvik::Tesmo::Tool
