#include "model/engine.h"

#include "command_line/errors.h"
#include "platform/onnxruntime/runtime.h"
#include "stream/kernel_build.h"

#include <filesystem>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr const char* engineFile = "libonnxruntime.so.1";

std::string EngineFolder() {
  const auto own = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  for (const char* relative :
       {".", "../lib", "../lib/kalvrin", KALVRIN_ENGINE_FOLDER, KALVRIN_ENGINE_FOLDER "/kalvrin"}) {
    const auto folder = own / relative;
    if (std::filesystem::exists(folder / engineFile)) return folder;
  }
  throw Refusal(std::string("the inference engine ") + engineFile + " is neither in " +
                own.string() + " nor in ../lib or ../lib/kalvrin from there");
}

}  // namespace

Engine::Engine() : modules(EngineFolder()) {
  SelectKernelBuild();
  if (Failed(Platform::CreateOnnxRuntime(modules.Engine(), runtime)))
    throw Refusal(std::string("the inference engine ") + EngineFolder() + "/" + engineFile +
                  " cannot be used; version 1.20 or later for this machine is needed");
}

}  // namespace Orvik::Tesmo::Tool
