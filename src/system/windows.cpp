#include "system/system.h"

#include <string>
#include <utility>
#include <windows.h>

/// Of ntdll, in no header here.
extern "C" BOOLEAN NTAPI RtlDllShutdownInProgress();

namespace Orvik::Tesmo::System {
namespace {

/// Takes `file` away at the end.
struct TemporaryFile {
  explicit TemporaryFile(std::filesystem::path file) : path(std::move(file)) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() { DeleteFileW(path.c_str()); }

  const std::filesystem::path path;
};

}  // namespace

const char* const engineFile = "onnxruntime.dll";

void CloseModule::operator()(void* module) const {
  FreeLibrary(static_cast<HMODULE>(module));
}

Module OpenModule(const std::filesystem::path& file) {
  // A file that is no library is an answer, not a message to whoever sits at the screen.
  DWORD former = 0;
  SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &former);
  Module module(LoadLibraryExW(file.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
  SetThreadErrorMode(former, nullptr);
  return module;
}

void KeepInMemory(void* module) {
  HMODULE kept = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                     static_cast<const wchar_t*>(module), &kept);
}

void* FunctionOf(void* module, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

std::filesystem::path FolderOf(const void* address) {
  HMODULE module = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                              GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          static_cast<const wchar_t*>(address), &module))
    return {};
  for (std::wstring file(MAX_PATH, L'\0'); file.size() <= 1 << 16; file.resize(file.size() * 2)) {
    const DWORD length = GetModuleFileNameW(module, file.data(), static_cast<DWORD>(file.size()));
    if (length == 0) break;
    if (length < file.size()) return std::filesystem::path(file.substr(0, length)).parent_path();
  }
  return {};
}

/// When the process ends, libraries that were opened later are told so earlier, the engine before
/// this library.
bool OtherModulesHaveEnded() {
  return RtlDllShutdownInProgress() != 0;
}

ScratchFile MakeScratchFile() {
  wchar_t folder[MAX_PATH + 1], file[MAX_PATH + 1];
  if (GetTempPathW(MAX_PATH + 1, folder) == 0 || GetTempFileNameW(folder, L"klv", 0, file) == 0)
    return nullptr;
  const auto made = std::make_shared<const TemporaryFile>(file);
  return {made, &made->path};
}

}  // namespace Orvik::Tesmo::System
