#include "render/stem_folder.h"

#include "command_line/errors.h"

#include <filesystem>
#include <system_error>

namespace Orvik::Tesmo::Tool {

StemFolder::StemFolder(std::string folder) : path(std::move(folder)) {
  std::error_code error;
  isOurs = std::filesystem::create_directory(path, error);
  if (error) throw Refusal("cannot make the folder " + path + ": " + error.message());
}

StemFolder::~StemFolder() {
  std::error_code ignored;
  if (isOurs) std::filesystem::remove(path, ignored);  // refuses a folder that holds something
}

}  // namespace Orvik::Tesmo::Tool
