#pragma once

// Numbers and gains as people write them on a command line, and as they like to read them back.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// A whole number from `least` to `most`. UsageError.
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
/// is linear and finite. UsageError.
float ParseGain(std::string_view text);

/// "NAME=GAIN", cut at the last equals sign. UsageError.
ClassGain ParseClassGain(std::string_view text);

/// The text with the letters A to Z small; all others stay.
std::string LowerCase(std::string text);

/// "1", "0.5012 (-6.0 dB)", "0".
std::string GainText(float gain);

}  // namespace Orvik::Tesmo::Tool
