#include "stream/set_up.h"

#include "core/kalvrin.h"
#include "kernels/ipps.h"
#include "platform/onnxruntime/runtime.h"
#include "stream/overlap_add_stage.h"
#include "stream/windowed_stream_processor.h"
#include "system/system.h"

#include <new>
#include <utility>

namespace Orvik::Tesmo {

namespace {

/// Loads FOLDER/FILE or FOLDER/kalvrin/FILE; null where neither loads. No other place is searched,
/// because another file of that name would not be the engine that was delivered with the library.
/// The packages of a distribution use the second place: they have one folder for all libraries, and
/// other programs shall not find this engine there.
System::Module LoadRuntimeModule(const std::filesystem::path& folder) {
  if (!folder.is_absolute()) return nullptr;
  for (const auto& place : {folder, folder / "kalvrin"})
    if (auto module = System::OpenModule(place / System::engineFile)) return module;
  return nullptr;
}

/// An engine and the library that its code is in. The runtime goes first. An engine that
/// works is kept in memory: one that shares libraries with others, as Debian's own does, leaves
/// routines behind that the process calls at its exit.
struct OpenEngine {
  explicit OpenEngine(const std::filesystem::path& folder)
      : module(LoadRuntimeModule(folder)),
        code(Platform::CreateOnnxRuntime(module.get(), runtime)) {
    SelectKernelBuild();
    if (code == ResultCodes::OutOfMemory) ThrowForResultCode(code);
    if (runtime) System::KeepInMemory(module.get());
  }
  OpenEngine(const OpenEngine&) = delete;
  OpenEngine& operator=(const OpenEngine&) = delete;
  ~OpenEngine() {
    if (!System::OtherModulesHaveEnded()) return;
    new (std::nothrow) std::shared_ptr<Platform::Runtime>(std::move(runtime));  // and no delete
    static_cast<void>(module.release());
  }

  System::Module module;
  std::shared_ptr<Platform::Runtime> runtime;
  ResultCode code;
};

std::shared_ptr<Platform::Runtime> RuntimeOf(const std::shared_ptr<const OpenEngine>& engine) {
  CheckResult(engine->code);
  return {engine, engine->runtime.get()};
}

}  // namespace

const std::filesystem::path& GetLibraryFolder() {
  static const auto folder = System::FolderOf(reinterpret_cast<const void*>(&GetLibraryFolder));
  return folder;
}

void SelectKernelBuild() {
  static const std::int32_t selected = ippVariantIndex = ippBestVariantIndex();
  static_cast<void>(selected);
}

std::shared_ptr<Platform::Runtime> OpenRuntime(const std::filesystem::path& folder) {
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
