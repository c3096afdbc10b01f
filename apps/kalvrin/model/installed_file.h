#pragma once

#include <filesystem>

namespace Orvik::Tesmo::Tool {

/// Where a file that is delivered with the tool stands: in the program's own folder, ../lib,
/// ../lib/kalvrin, or the folder of installed libraries and its kalvrin: the first that has it.
/// Refusal where none has.
std::filesystem::path InstalledFile(const char* name);

}  // namespace Orvik::Tesmo::Tool
