#pragma once

// The gains of the streams of a render: of the mix, and of each stem.

#include "command_line/values.h"
#include "diagnosis/model_facts.h"
#include "kalvrin/stream_processor.h"

#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// Unity but for the gains asked for. UsageError, with the names there are, for an unknown class.
void SetMix(StreamProcessor& stream, const Gains& gains, const Diagnosis::ModelFacts& facts);

/// One stem beside the mix.
struct Stem {
  std::string title;         // UTF-8
  std::u16string className;  // as the library finds it
  bool isRemainder = false;  // what no class claims
};

/// Every class and the remainder, which together give the input back. What no gain can reach by
/// name (a second class of one name, a remainder hidden by a class Rest) has none.
std::vector<Stem> StemsOf(const Diagnosis::ModelFacts& facts);

/// That stem alone, at unity. `stream` is new: all its gains are 0.
void SetStem(StreamProcessor& stream, const Stem& stem);

/// "master 1, Speech 0.5 (-6.0 dB), Music 1, Rest 1".
std::string MixText(const Gains& gains, const Diagnosis::ModelFacts& facts);

/// File names, without extension, for texts of any kind (UTF-8): letters of every language and
/// spaces stay, what a file system or a shell would stumble over becomes "_". No two results are
/// equal, also where letters are equal in either case; the earlier one keeps the plain name. Each
/// is at most 100 bytes long.
std::vector<std::string> SafeFileNames(const std::vector<std::string>& texts);

/// The folder for the stems: made where it is missing, and then removed again at the end of the
/// object's life if it is still empty.
class StemFolder {
public:
  /// Refusal where it cannot be made.
  explicit StemFolder(std::string path);
  ~StemFolder();
  StemFolder(const StemFolder&) = delete;
  StemFolder& operator=(const StemFolder&) = delete;

private:
  std::string path;
  bool isOurs;
};

}  // namespace Orvik::Tesmo::Tool
