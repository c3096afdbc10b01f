#include "stream/set_up.h"

#include <dlfcn.h>

#include <climits>
#include <filesystem>

namespace Orvik::Tesmo {

namespace {

std::string FolderOfThisCode() {
  Dl_info info = {};
  if (!dladdr(reinterpret_cast<const void*>(&GetLibraryFolder), &info) || !info.dli_fname)
    return {};
  // The loader noted the folder of a library when it loaded it. The path above may be relative, and
  // the working directory another one by now.
  if (void* const self = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD)) {
    char folder[PATH_MAX] = {};
    const bool known = dlinfo(self, RTLD_DI_ORIGIN, folder) == 0;
    dlclose(self);
    if (known) return folder;
  }
  std::error_code failure;
  const auto path = std::filesystem::absolute(info.dli_fname, failure);
  return failure ? std::string() : path.parent_path().string();
}

}  // namespace

const std::string& GetLibraryFolder() {
  static const std::string folder = FolderOfThisCode();
  return folder;
}

}  // namespace Orvik::Tesmo
