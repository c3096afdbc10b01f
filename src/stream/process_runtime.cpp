#include "stream/process_runtime.h"

#include "platform/onnxruntime/runtime.h"
#include "stream/kernel_build.h"
#include "stream/library_folder.h"
#include "stream/runtime_modules.h"

#include <memory>

namespace Orvik::Tesmo {

namespace {

/// What became of the one attempt to make the engine.
struct Engine {
  ResultCode code;
  std::shared_ptr<Platform::Runtime> runtime;
};

Engine MakeEngine(const RuntimeModules& modules) {
  Engine engine;
  engine.code = Platform::CreateOnnxRuntime(modules.Engine(), engine.runtime);
  if (engine.code == ResultCodes::OutOfMemory) ThrowForResultCode(engine.code);
  return engine;
}

}  // namespace

Platform::Runtime& ProcessRuntime() {
  SelectKernelBuild();
  // Statics end in reverse: the engine before its modules, the modules before the folder's name.
  static const RuntimeModules modules(GetLibraryFolder());
  static const Engine engine = MakeEngine(modules);
  CheckResult(engine.code);
  return *engine.runtime;
}

}  // namespace Orvik::Tesmo
