#include "stream/set_up.h"

#include "core/kalvrin.h"
#include "kernels/ipps.h"
#include "platform/onnxruntime/runtime.h"
#include "stream/overlap_add_stage.h"
#include "stream/windowed_stream_processor.h"

#include <dlfcn.h>
#include <link.h>

#include <utility>

namespace Orvik::Tesmo {

namespace {

struct CloseModule {
  void operator()(void* module) const { dlclose(module); }
};
using Module = std::unique_ptr<void, CloseModule>;

/// Loads FOLDER/FILE or FOLDER/kalvrin/FILE; null where neither loads. No other place is searched,
/// because another file of that name would not be the engine that was delivered with the library.
/// The packages of a distribution use the second place: they have one folder for all libraries, and
/// other programs shall not find this engine there.
Module LoadRuntimeModule(const std::string& folder, const char* fileName) {
  for (const char* below : {"/", "/kalvrin/"}) {
    const std::string path = folder + below + fileName;
    if (Module module{dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)}) return module;
  }
  return nullptr;
}

/// Keeps the code in memory until the process ends, however often it is closed.
void KeepInMemory(void* module) {
  link_map* place = nullptr;
  if (dlinfo(module, RTLD_DI_LINKMAP, static_cast<void*>(&place)) != 0) return;
  if (void* const again = dlopen(place->l_name, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE))
    dlclose(again);
}

/// An engine and the library that its code is in. The runtime goes first. An engine that
/// works is kept in memory: one that shares libraries with others, as Debian's own does, leaves
/// routines behind that the process calls at its exit.
struct OpenEngine {
  explicit OpenEngine(const std::string& folder)
      : module(LoadRuntimeModule(folder, "libonnxruntime.so.1")),
        code(Platform::CreateOnnxRuntime(module.get(), runtime)) {
    SelectKernelBuild();
    if (code == ResultCodes::OutOfMemory) ThrowForResultCode(code);
    if (runtime) KeepInMemory(module.get());
  }

  Module module;
  std::shared_ptr<Platform::Runtime> runtime;
  ResultCode code;
};

std::shared_ptr<Platform::Runtime> RuntimeOf(const std::shared_ptr<const OpenEngine>& engine) {
  CheckResult(engine->code);
  return {engine, engine->runtime.get()};
}

}  // namespace

void SelectKernelBuild() {
  static const std::int32_t selected = ippVariantIndex = ippBestVariantIndex();
  static_cast<void>(selected);
}

std::shared_ptr<Platform::Runtime> OpenRuntime(const std::string& folder) {
  return RuntimeOf(std::make_shared<const OpenEngine>(folder));
}

std::shared_ptr<Platform::Runtime> ProcessRuntime() {
  static const auto engine = std::make_shared<const OpenEngine>(GetLibraryFolder());
  return RuntimeOf(engine);
}

std::unique_ptr<StreamProcessor> AssembleStream(const std::shared_ptr<Platform::Runtime>& runtime,
                                                const std::shared_ptr<Platform::Model>& model,
                                                std::uint64_t sequenceSize,
                                                std::uint64_t channelCount,
                                                std::uint64_t blockFrames) {
  // A refusal here costs nothing; later the core would have been built in vain.
  FloatCount({channelCount, blockFrames});
  auto core = std::make_unique<Dnn::Kalvrin>(runtime, model, sequenceSize, channelCount);
  // Where the host passes 0 the core has chosen the size.
  const std::uint64_t effectiveSize = core->GetSequenceSize();
  auto stage = std::make_unique<OverlapAddStage>(core->GetHopLength(), effectiveSize, channelCount,
                                                 core->IsSpectral(), core->GetWindows());
  return std::make_unique<WindowedStreamProcessor>(std::move(core), std::move(stage), effectiveSize,
                                                   channelCount, blockFrames);
}

}  // namespace Orvik::Tesmo
