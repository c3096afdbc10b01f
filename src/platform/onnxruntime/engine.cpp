#include "platform/onnxruntime/engine.h"

#include "system/system.h"

namespace Orvik::Tesmo::Platform::OnnxRuntime {
namespace {

/// Without a logger of one's own the engine writes to the standard streams of the host.
void WriteNothing(void*, int, const char*, const char*, const char*, const char*) {}

constexpr int arenaAllocator = 0;
constexpr int defaultMemory = 0;
constexpr int sequential = 0;
constexpr int allOptimizations = 99;
constexpr int errorsOnly = 3;

const void* const* TableOf(void* module) {
  if (!module) Refuse(ResultCodes::ClassNotRegistered, "the inference engine is not loaded");
  const auto entry = reinterpret_cast<OrtEntry*>(System::FunctionOf(module, ortEntryName));
  const OrtApiBase* base = entry ? entry() : nullptr;
  if (!base) Refuse(ResultCodes::ClassNotAvailable, "the library is not an inference engine");
  const void* const* table = base->getApi(ortApiVersion);
  if (!table) Refuse(ResultCodes::ClassNotAvailable, "the inference engine is too old");
  return table;
}

}  // namespace

Engine::Engine(void* module) : api(TableOf(module)) {
  Check(api.createEnvWithLogger(WriteNothing, nullptr, errorsOnly, "kalvrin",
                                Receive(env, api.releaseEnv)));
  Check(api.createCpuMemoryInfo(arenaAllocator, defaultMemory,
                                Receive(cpuMemory, api.releaseMemoryInfo)));
  Check(api.getDefaultAllocator(&allocator));
  CreateSessionOptions();
}

/// One thread and no other: with these the engine runs a model on the calling thread alone. With
/// the arena its working memory is kept from one evaluation to the next.
void Engine::CreateSessionOptions() {
  Check(api.createSessionOptions(Receive(sessionOptions, api.releaseSessionOptions)));
  OrtSessionOptions* options = sessionOptions.get();
  Check(api.setIntraOpThreads(options, 1));
  Check(api.setInterOpThreads(options, 1));
  Check(api.setExecutionMode(options, sequential));
  Check(api.setGraphOptimizationLevel(options, allOptimizations));
  Check(api.enableCpuArena(options));
  Check(api.setLogSeverity(options, errorsOnly));
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
