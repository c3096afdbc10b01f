#pragma once

#include "diagnosis/model_facts.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Hosting {

/// Channels of a form of a plugin at most.
inline constexpr unsigned mostChannels = 64;
/// The gains that a plugin offers, in dB; at the lowest and below it is silence.
inline constexpr float lowestGainDb = -60, highestGainDb = 12;

/// What a plugin knows about its model before it loads the model, so that a host can list plugins
/// without loading one. The tool writes it into a text file beside the model: one line "key value"
/// for each member, for `channels` and `class` one line for each element.
struct Description {
  std::string name;                     // for people, UTF-8
  std::string symbol;                   // letters, digits and _, not beginning with a digit
  std::uint32_t sampleRateHz = 0;       // 0: the model works at any
  std::uint64_t windowLength = 0;       // samples, even
  std::uint64_t lookaheadBlocks = 0;    // windows
  std::uint64_t sequenceSize = 0;       // windows per evaluation, from 1
  bool takesAnyModel = false;           // there is none yet: no rate, window and sequence
  bool isAlwaysSpread = false;          // there is no choice of the mode: always Spread
  std::vector<unsigned> channelCounts;  // a form of the plugin for each, from 1 to mostChannels
  std::vector<std::string> classes;     // UTF-8, those that a gain can reach, without Rest

  std::uint64_t HopLength() const { return windowLength / 2; }
  /// Frames of one evaluation.
  std::uint64_t ChunkFrames() const { return HopLength() * sequenceSize; }
};

/// What a loaded model says, all but name, symbol and channels. The classes are those that a gain
/// can reach. `sequenceSize`: 0 leaves it to the model.
Description DescriptionOf(const Diagnosis::ModelFacts& facts, std::uint64_t sequenceSize);

/// "NAME.onnx" has its description in "NAME.plugin".
std::filesystem::path DescriptionPath(const std::filesystem::path& model);

/// The file's whole text.
std::string DescriptionText(const Description& description);

/// Throws std::runtime_error, which names the file, where it is missing or is no description.
Description ReadDescription(const std::filesystem::path& file);

}  // namespace Orvik::Tesmo::Hosting
