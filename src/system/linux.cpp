#include "system/system.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <string>

namespace Orvik::Tesmo::System {
namespace {

/// A file without a name, in memory.
struct MemoryFile {
  MemoryFile() : file(memfd_create("kalvrin-model", MFD_CLOEXEC)) {}
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile() {
    if (file >= 0) close(file);
  }

  int file;
  std::filesystem::path path;
};

}  // namespace

const char* const engineFile = "libonnxruntime.so.1";

void CloseModule::operator()(void* module) const {
  dlclose(module);
}

Module OpenModule(const std::filesystem::path& file) {
  return Module(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL));
}

void KeepInMemory(void* module) {
  link_map* place = nullptr;
  if (dlinfo(module, RTLD_DI_LINKMAP, static_cast<void*>(&place)) != 0) return;
  if (void* const again = dlopen(place->l_name, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE))
    dlclose(again);
}

void* FunctionOf(void* module, const char* name) {
  return dlsym(module, name);
}

std::filesystem::path FolderOf(const void* address) {
  Dl_info info = {};
  if (!dladdr(address, &info) || !info.dli_fname) return {};
  // The loader noted the folder of a library when it loaded it. The path above may be relative, and
  // the working directory another one by now.
  if (const Module self{dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD)}) {
    char folder[PATH_MAX] = {};
    if (dlinfo(self.get(), RTLD_DI_ORIGIN, folder) == 0) return folder;
  }
  std::error_code failure;
  return std::filesystem::absolute(info.dli_fname, failure).parent_path();
}

/// Libraries end in the reverse of the order in which they were opened, those last that others use.
bool OtherModulesHaveEnded() {
  return false;
}

ScratchFile MakeScratchFile() {
  const auto made = std::make_shared<MemoryFile>();
  made->path = "/proc/self/fd/" + std::to_string(made->file);
  const bool canBeOpened = made->file >= 0 && access(made->path.c_str(), W_OK) == 0;
  return canBeOpened ? ScratchFile(made, &made->path) : nullptr;
}

}  // namespace Orvik::Tesmo::System
