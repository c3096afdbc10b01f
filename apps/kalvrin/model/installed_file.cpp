#include "model/installed_file.h"

#include "command_line/errors.h"

#include <string>

namespace Orvik::Tesmo::Tool {

std::filesystem::path InstalledFile(const char* name) {
  const auto own = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const std::string installed = KALVRIN_ENGINE_FOLDER;
  for (const std::string& relative :
       {std::string("."), std::string("../lib"), std::string("../lib/kalvrin"), installed,
        installed + "/kalvrin"}) {
    auto path = own / relative / name;
    if (std::filesystem::exists(path)) return path;
  }
  throw Refusal(std::string(name) + " is neither in " + own.string() +
                " nor in ../lib or ../lib/kalvrin from there");
}

}  // namespace Orvik::Tesmo::Tool
