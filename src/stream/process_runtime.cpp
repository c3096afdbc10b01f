#include "stream/process_runtime.h"

#include "platform/onnxruntime/runtime.h"
#include "stream/kernel_build.h"
#include "stream/library_folder.h"
#include "stream/runtime_modules.h"

#include <string>

namespace Orvik::Tesmo {

namespace {

/// The modules and what was made of them, in the one attempt that there is. The runtime goes before
/// its modules.
struct Engine {
  explicit Engine(const std::string& folder)
      : modules(folder), code(Platform::CreateOnnxRuntime(modules.Engine(), runtime)) {
    if (code == ResultCodes::OutOfMemory) ThrowForResultCode(code);
  }

  RuntimeModules modules;
  std::shared_ptr<Platform::Runtime> runtime;
  ResultCode code;
};

}  // namespace

std::shared_ptr<Platform::Runtime> ProcessRuntime() {
  SelectKernelBuild();
  static const auto engine = std::make_shared<const Engine>(GetLibraryFolder());
  CheckResult(engine->code);
  return {engine, engine->runtime.get()};
}

}  // namespace Orvik::Tesmo
