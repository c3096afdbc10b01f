#pragma once

#include "platform/onnxruntime/failure.h"
#include "platform/onnxruntime/handle.h"
#include "platform/onnxruntime/ort_api.h"

namespace Orvik::Tesmo::Platform::OnnxRuntime {

/// What all objects of one runtime share: the engine's table and the pieces made once from it.
/// Does not change, so it may be used on any thread. Every object that holds something of the
/// engine keeps a reference to it.
class Engine {
public:
  /// `module`: the handle of the opened library, which must stay open while the engine is in use.
  /// Fails with ClassNotRegistered for null, ClassNotAvailable for a library that is no engine or
  /// one that is too old.
  explicit Engine(void* module);

  const OrtApi& Api() const { return api; }
  const OrtEnv* Env() const { return env.get(); }
  const OrtSessionOptions* SessionOptions() const { return sessionOptions.get(); }
  const OrtMemoryInfo* CpuMemory() const { return cpuMemory.get(); }
  OrtAllocator* Allocator() const { return allocator; }

  /// Takes what an entry answered; a failure is thrown.
  void Check(OrtStatus* status) const {
    if (status) [[unlikely]]
      throw Failure{TakeStatus(api, status)};
  }

private:
  void CreateSessionOptions();

  OrtApi api;
  Handle<OrtEnv> env;
  Handle<OrtSessionOptions> sessionOptions;
  Handle<OrtMemoryInfo> cpuMemory;
  OrtAllocator* allocator = nullptr;
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
