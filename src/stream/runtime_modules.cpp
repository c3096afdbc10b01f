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

/// Only FOLDER/FILE and FOLDER/kalvrin/FILE are tried: whatever else of that name a search would
/// find is not the engine that was delivered with the library. Packages of a system use the second,
/// where all libraries share one folder and the engine is no business of the others.
void* LoadRuntimeModule(const std::string& folder, const char* fileName) {
  for (const char* below : {"/", "/kalvrin/"}) {
    const std::string path = folder + below + fileName;
    if (void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | KeepForLeakCheck))
      return module;
  }
  return nullptr;
}

}  // namespace

RuntimeModules::RuntimeModules(const std::string& folder)
    : engine(LoadRuntimeModule(folder, "libonnxruntime.so.1")) {}

RuntimeModules::~RuntimeModules() {
  if (engine) dlclose(engine);
}

}  // namespace Orvik::Tesmo
