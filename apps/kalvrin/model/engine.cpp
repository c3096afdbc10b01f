#include "model/engine.h"

#include "command_line/errors.h"
#include "model/installed_file.h"
#include "platform/onnxruntime/runtime.h"
#include "stream/kernel_build.h"

namespace Orvik::Tesmo::Tool {
namespace {

std::string EngineFolder() {
  return InstalledFile("libonnxruntime.so.1").parent_path();
}

}  // namespace

Engine::Engine() : modules(EngineFolder()) {
  SelectKernelBuild();
  if (Failed(Platform::CreateOnnxRuntime(modules.Engine(), runtime)))
    throw Refusal("the inference engine " + EngineFolder() +
                  "/libonnxruntime.so.1 cannot be used; version 1.20 or later for this machine is "
                  "needed, and enough memory");
}

}  // namespace Orvik::Tesmo::Tool
