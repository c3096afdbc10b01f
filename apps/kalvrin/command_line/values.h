#pragma once

// Numbers and gains as people write them on a command line, and gains as the tool prints them.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// A whole number from `least` to `most`. Throws UsageError.
std::uint64_t ParseCount(std::string_view text, std::uint64_t least, std::uint64_t most);

struct ClassGain {
  std::string name;  // UTF-8, as typed
  float gain = 1;    // linear, from 0
};

struct Gains {
  std::vector<ClassGain> classes;  // the last of a name counts
  float rest = 1, master = 1;
};

/// A linear factor from 0 ("0.5"), or decibels ("-6dB", "-6 db", "-infdB" for silence). The result
/// is linear and finite. Throws UsageError.
float ParseGain(std::string_view text);

/// "NAME=GAIN", cut at the last equals sign. Throws UsageError.
ClassGain ParseClassGain(std::string_view text);

/// The text with A to Z as a to z, all other bytes unchanged.
std::string LowerCase(std::string text);

/// "1", "0.5012 (-6.0 dB)", "0".
std::string GainText(float gain);

}  // namespace Orvik::Tesmo::Tool
