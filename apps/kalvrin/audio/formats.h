#pragma once

// Which kinds of audio file the tool writes. What it reads is whatever libsndfile reads.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Orvik::Tesmo::Tool {

/// Container and encoding of an audio file, as libsndfile numbers them.
struct AudioFormat {
  int container = 0;  // SF_FORMAT_WAV, SF_FORMAT_FLAC, SF_FORMAT_OGG
  int encoding = 0;   // SF_FORMAT_PCM_16, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32, SF_FORMAT_FLOAT, ...
};

/// "wav", "flac" or "ogg". Throws UsageError for another text.
int ParseContainer(std::string_view text);

/// "pcm16", "pcm24", "pcm32" or "float". Throws UsageError for another text.
int ParseEncoding(std::string_view text);

/// The container that the extension of `path` names; WAV where there is none. Throws UsageError for
/// any other extension.
int ContainerForPath(std::string_view path);

/// ".wav" and so on.
std::string_view ExtensionOf(int container);

/// The format to write. The encoding is the wished one, else that of the input (`inputFormat`,
/// libsndfile's number) where the container has it, else the nearest that loses nothing. Throws
/// Refusal where the container does not have the wished encoding.
AudioFormat ChooseFormat(int container, std::optional<int> wishedEncoding, int inputFormat);

/// "WAV, 24-bit", for the summary.
std::string FormatText(const AudioFormat& format);

/// Bits of a sample of a PCM encoding; 0 for others.
int BitsOf(int encoding);

}  // namespace Orvik::Tesmo::Tool
