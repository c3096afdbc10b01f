#pragma once

// The gains of the streams of a render: of the mix, and of each stem.

#include "command_line/values.h"
#include "diagnosis/model_facts.h"
#include "kalvrin/stream_processor.h"

#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// Sets all gains to 1 but for those asked for. Throws UsageError, with the names that there are,
/// for an unknown class.
void SetMix(StreamProcessor& stream, const Gains& gains, const Diagnosis::ModelFacts& facts);

/// One stem beside the mix.
struct Stem {
  std::string title;         // UTF-8
  std::u16string className;  // for the library's calls
  bool isRemainder = false;  // what no class claims
};

/// A stem for every class and for the remainder; together they add up to the input. A class that no
/// gain can reach by name (the second of one name), and a remainder that a class Rest hides, have
/// no stem.
std::vector<Stem> StemsOf(const Diagnosis::ModelFacts& facts);

/// Sets the stem's gain and the master gain to 1. `stream` is new: all its gains are 0.
void SetStem(StreamProcessor& stream, const Stem& stem);

/// "master 1, Speech 0.5 (-6.0 dB), Music 1, Rest 1".
std::string MixText(const Gains& gains, const Diagnosis::ModelFacts& facts);

/// File names, without extension, for any UTF-8 texts. Letters of every language and spaces stay;
/// characters that mean something to a file system or a shell become "_". No two names are equal,
/// nor equal but for upper and lower case: a later one gets "-2" and so on. Texts are cut at 100
/// bytes.
std::vector<std::string> SafeFileNames(const std::vector<std::string>& texts);

/// The folder for the stems. Where it is missing it is made, and removed with this object if it is
/// still empty then.
class StemFolder {
public:
  /// Throws Refusal where it cannot be made.
  explicit StemFolder(std::string path);
  ~StemFolder();
  StemFolder(const StemFolder&) = delete;
  StemFolder& operator=(const StemFolder&) = delete;

private:
  std::string path;
  bool isOurs;
};

}  // namespace Orvik::Tesmo::Tool
