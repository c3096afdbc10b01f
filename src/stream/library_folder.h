#pragma once

#include <string>

namespace Orvik::Tesmo {

/// The absolute path of the folder of the library or program that `code`, the address of a function
/// in it, was loaded from; empty when the loader does not say. As $ORIGIN, it is the folder of the
/// path that the loader was given: a symbolic link to the library counts with its own folder.
std::string FolderOf(const void* code);

/// FolderOf this code: of libkalvrin.so, or of the program that links the code statically. Found on
/// first use and kept until unloading.
const std::string& GetLibraryFolder();

}  // namespace Orvik::Tesmo
