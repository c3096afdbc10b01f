#pragma once

// What differs between operating systems. One file per system implements it, linux.cpp or
// windows.cpp. All functions may be called on any thread.

#include <filesystem>
#include <memory>

namespace Orvik::Tesmo::System {

/// The name of the file that holds the inference engine.
extern const char* const engineFile;

struct CloseModule {
  void operator()(void* module) const;
};
/// An open shared library.
using Module = std::unique_ptr<void, CloseModule>;

/// Opens the library `file`, an absolute path. The libraries that it needs are found beside it too.
/// Null where it cannot be opened.
Module OpenModule(const std::filesystem::path& file);

/// Keeps the code of `module` in memory until the process ends, however often it is closed.
void KeepInMemory(void* module);

/// The address of the function `name` that `module` exports; null where there is none.
void* FunctionOf(void* module, const char* name);

/// The absolute path of the folder that the code at `address` was loaded from; empty where the
/// system does not say.
std::filesystem::path FolderOf(const void* address);

/// Whether the process is ending, and has ended other libraries before this one: their functions
/// must not be called any more.
bool OtherModulesHaveEnded();

/// The path of a new, empty file that this process can open and write by that path. The file goes
/// with the last reference; nothing else may hold it open then. Null where there can be none.
using ScratchFile = std::shared_ptr<const std::filesystem::path>;
ScratchFile MakeScratchFile();

}  // namespace Orvik::Tesmo::System
