#pragma once

// The lines that several subcommands print.

#include "diagnosis/model_facts.h"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace Orvik::Tesmo::Diagnosis {

/// The most that the command line takes; far above sense, far below what overflows.
inline constexpr std::uint64_t mostChannels = 1024, mostWindows = 1 << 20,
                               mostBlockFrames = 1 << 20;

/// "  label      text"; nothing for an empty text.
void PrintField(std::ostream& out, std::string_view label, std::string_view text);

/// "1 channel", "3 channels".
std::string Counted(std::uint64_t count, std::string_view noun);

/// "12.5 ms", "1.25 s".
std::string DurationText(double seconds);

/// "1152 frames (24.0 ms)"; without the time where the rate is 0.
std::string LatencyText(std::uint64_t frames, std::int32_t rateHz);

/// What the stage multiplies by before and behind the model: "hann of 400 frames".
std::string WindowText(const ModelFacts& facts);

/// "2 channels, 4 windows of 512 frames per evaluation, blocks of 256 frames".
std::string StreamText(const StreamRequest& settled, const ModelFacts& facts);

/// What is legal but will surprise: class names that cannot be reached, bindings that do nothing.
std::vector<std::string> Notes(const ModelFacts& facts);

/// One line for each, "note: ...".
void PrintNotes(std::ostream& out, const std::vector<std::string>& notes);

}  // namespace Orvik::Tesmo::Diagnosis
