#include "audio/formats.h"

#include "command_line/errors.h"
#include "command_line/values.h"

#include <algorithm>
#include <filesystem>
#include <sndfile.h>

namespace Orvik::Tesmo::Tool {
namespace {

struct Container {
  int number;
  std::string_view name, extension, otherExtension, title;
};
constexpr Container containers[] = {
    {SF_FORMAT_WAV, "wav", ".wav", ".wave", "WAV"},
    {SF_FORMAT_FLAC, "flac", ".flac", ".flac", "FLAC"},
    {SF_FORMAT_OGG, "ogg", ".ogg", ".oga", "Ogg Vorbis"},
};

struct Encoding {
  int number, bits;
  std::string_view name, title;
};
constexpr Encoding encodings[] = {
    {SF_FORMAT_PCM_16, 16, "pcm16", "16-bit"},
    {SF_FORMAT_PCM_24, 24, "pcm24", "24-bit"},
    {SF_FORMAT_PCM_32, 32, "pcm32", "32-bit"},
    {SF_FORMAT_FLOAT, 0, "float", "32-bit float"},
};

const Container& RowOf(int container) {
  return *std::ranges::find(containers, container, &Container::number);
}

std::string Quoted(std::string_view text) {
  return "'" + std::string(text) + "'";
}

/// The encoding that holds what a file in `inputFormat` holds.
int EncodingLike(int inputFormat) {
  switch (inputFormat & SF_FORMAT_SUBMASK) {
  case SF_FORMAT_PCM_S8:
  case SF_FORMAT_PCM_U8:
  case SF_FORMAT_PCM_16:
    return SF_FORMAT_PCM_16;
  case SF_FORMAT_PCM_24:
    return SF_FORMAT_PCM_24;
  case SF_FORMAT_PCM_32:
    return SF_FORMAT_PCM_32;
  default:  // floats, and what was decoded from a lossy format
    return SF_FORMAT_FLOAT;
  }
}

}  // namespace

int ParseContainer(std::string_view text) {
  const auto row = std::ranges::find(containers, text, &Container::name);
  if (row == std::end(containers)) throw UsageError(Quoted(text) + " is not wav, flac or ogg");
  return row->number;
}

int ParseEncoding(std::string_view text) {
  const auto row = std::ranges::find(encodings, text, &Encoding::name);
  if (row == std::end(encodings))
    throw UsageError(Quoted(text) + " is not pcm16, pcm24, pcm32 or float");
  return row->number;
}

int ContainerForPath(std::string_view path) {
  const std::string extension = LowerCase(std::filesystem::path(path).extension());
  if (extension.empty()) return SF_FORMAT_WAV;
  for (const Container& row : containers)
    if (extension == row.extension || extension == row.otherExtension) return row.number;
  throw UsageError("no audio format has the extension " + extension +
                   "; name the output .wav, .flac or .ogg, or give --format");
}

std::string_view ExtensionOf(int container) {
  return RowOf(container).extension;
}

AudioFormat ChooseFormat(int container, std::optional<int> wishedEncoding, int inputFormat) {
  const bool isFlac = container == SF_FORMAT_FLAC;
  const auto holds = [isFlac](int encoding) {
    return !isFlac || encoding == SF_FORMAT_PCM_16 || encoding == SF_FORMAT_PCM_24;
  };
  if (container == SF_FORMAT_OGG) {
    if (wishedEncoding) throw Refusal("--encoding has no meaning for Ogg Vorbis");
    return {container, SF_FORMAT_VORBIS};
  }
  if (wishedEncoding && !holds(*wishedEncoding))
    throw Refusal("FLAC holds 16-bit and 24-bit samples only; choose --encoding pcm16 or pcm24, or "
                  "write a .wav");
  const int encoding = wishedEncoding.value_or(EncodingLike(inputFormat));
  return {container, holds(encoding) ? encoding : SF_FORMAT_PCM_24};
}

std::string FormatText(const AudioFormat& format) {
  std::string text(RowOf(format.container).title);
  const auto row = std::ranges::find(encodings, format.encoding, &Encoding::number);
  if (row != std::end(encodings)) text.append(", ").append(row->title);
  return text;
}

int BitsOf(int encoding) {
  const auto row = std::ranges::find(encodings, encoding, &Encoding::number);
  return row == std::end(encodings) ? 0 : row->bits;
}

}  // namespace Orvik::Tesmo::Tool
