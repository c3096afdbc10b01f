#include "stream/runtime_modules.h"

#include <dlfcn.h>

namespace Orvik::Tesmo {

namespace {

// The leak check at the end of an instrumented process counts blocks of a module that is gone as
// lost, so such a process keeps it.
#if defined(__SANITIZE_ADDRESS__)
constexpr int KeepForLeakCheck = RTLD_NODELETE;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr int KeepForLeakCheck = RTLD_NODELETE;
#else
constexpr int KeepForLeakCheck = 0;
#endif
#else
constexpr int KeepForLeakCheck = 0;
#endif

/// Only the path FOLDER/FILE is tried: whatever else of that name a search would find is not the
/// engine that was delivered with the library.
void* LoadRuntimeModule(const std::string& folder, const char* fileName) {
  const std::string path = folder + '/' + fileName;
  return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | KeepForLeakCheck);
}

}  // namespace

RuntimeModules::RuntimeModules(const std::string& folder)
    : engine(LoadRuntimeModule(folder, "libonnxruntime.so.1")) {}

RuntimeModules::~RuntimeModules() {
  if (engine) dlclose(engine);
}

}  // namespace Orvik::Tesmo
