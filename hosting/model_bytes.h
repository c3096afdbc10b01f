#pragma once

#include <filesystem>
#include <memory>
#include <vector>

namespace Orvik::Tesmo::Hosting {

using ModelBytes = std::vector<char>;

/// Returns the content of a model file. While somebody holds it, further calls for the same file
/// return the same bytes: a process has one copy of each file, which it knows by device, inode,
/// size and time of change. Any thread; slow. Throws std::runtime_error, std::bad_alloc.
std::shared_ptr<const ModelBytes> LoadModelBytes(const std::filesystem::path& file);

}  // namespace Orvik::Tesmo::Hosting
