#pragma once

#include <string>

namespace Orvik::Tesmo {

/// The absolute path of the folder from which this code was loaded: of libkalvrin.so, or of the
/// program that links the code statically. Found on first use and kept until unloading; empty when
/// the loader does not say. As $ORIGIN, it is the folder of the path that the loader was given: a
/// symbolic link to the library counts with its own folder.
const std::string& GetLibraryFolder();

}  // namespace Orvik::Tesmo
