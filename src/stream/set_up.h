#pragma once

// The set-up of a stream: the inference engine of this process, and the objects that make a stream
// out of a loaded model. All functions may be called on any thread, on several at once.

#include "kalvrin/stream_processor.h"
#include "platform/platform.h"

#include <cstdint>
#include <filesystem>
#include <memory>

namespace Orvik::Tesmo {

/// The absolute path of the folder that this code was loaded from: of libkalvrin.so, or of whatever
/// links the code statically; empty when the system does not say. As with $ORIGIN, a symbolic link
/// to the file counts with its own folder. Found on first use and kept until unloading.
const std::filesystem::path& GetLibraryFolder();

/// Sets the kernels to the best build that this processor runs, once in the life of the code; later
/// calls do nothing. Before the first core is made: a transform keeps the build that it was planned
/// with.
void SelectKernelBuild();

/// Opens the engine in `folder`, an absolute path, or in the folder `kalvrin` in it, and selects
/// the kernel build. The result keeps the engine's library open and must outlive everything that is
/// made of it. Throws as ThrowForResultCode where the engine is missing or unusable,
/// std::bad_alloc.
std::shared_ptr<Platform::Runtime> OpenRuntime(const std::filesystem::path& folder);

/// The one engine of this process: OpenRuntime(GetLibraryFolder()) at the first call, released when
/// the code is unloaded, or with the last reference where a host keeps a stream in a static object
/// of its own. An engine that is missing or unusable at the first call stays so: every later call
/// throws the same failure. Memory that runs out at the first call is thrown as std::bad_alloc, and
/// the next call starts afresh.
std::shared_ptr<Platform::Runtime> ProcessRuntime();

/// Builds the objects of one stream: the core, the overlap-add stage, the object that the host
/// holds. `model` is one that `runtime` has loaded; streams may share both, and a stream keeps
/// them. `sequenceSize`, `channelCount`, `blockFrames`: as in CreateStreamProcessor.
/// Throws what the core throws, ContractException on sizes out of range, std::bad_alloc.
std::unique_ptr<StreamProcessor> AssembleStream(const std::shared_ptr<Platform::Runtime>& runtime,
                                                const std::shared_ptr<Platform::Model>& model,
                                                std::uint64_t sequenceSize,
                                                std::uint64_t channelCount,
                                                std::uint64_t blockFrames);

}  // namespace Orvik::Tesmo
