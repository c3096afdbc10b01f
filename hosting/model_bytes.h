#pragma once

#include <filesystem>
#include <memory>
#include <vector>

namespace Orvik::Tesmo::Plugin {

using ModelBytes = std::vector<char>;

/// The content of a model file. While somebody holds it, further calls for the same file give the
/// same bytes: one copy per process and file, known by device, inode, size and time of change. Any
/// thread; slow. Throws std::runtime_error, std::bad_alloc.
std::shared_ptr<const ModelBytes> LoadModelBytes(const std::filesystem::path& file);

}  // namespace Orvik::Tesmo::Plugin
