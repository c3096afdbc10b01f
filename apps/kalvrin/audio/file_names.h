#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// File names, without extension, for texts of any kind (UTF-8): letters of every language and
/// spaces stay, what a file system or a shell would stumble over becomes "_". No two results are
/// equal, also where letters are equal in either case; the earlier one keeps the plain name. Each
/// is at most 100 bytes long.
std::vector<std::string> SafeFileNames(const std::vector<std::string>& texts);

/// The text with the letters A to Z small; all others stay.
std::string LowerCase(std::string text);

}  // namespace Orvik::Tesmo::Tool
