#pragma once

#include "platform/onnxruntime/ort_api.h"

#include <memory>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

template <class Object>
struct HandleRelease {
  void (*release)(Object*) = nullptr;
  void operator()(Object* object) const { release(object); }
};

/// Owns an object of the engine. The engine's environment must outlive it.
template <class Object>
using Handle = std::unique_ptr<Object, HandleRelease<Object>>;

/// The out-argument of a creating entry: hands what the entry stored to `handle` at the end of the
/// full expression. Nothing is stored on failure.
template <class Object>
class Receive {
public:
  Receive(Handle<Object>& handle, const OrtSlot<void(Object*)>& release)
      : handle(handle), release(release.Pointer()) {}
  Receive(const Receive&) = delete;
  Receive& operator=(const Receive&) = delete;
  ~Receive() { handle = Handle<Object>(object, {release}); }
  operator Object**() { return &object; }

private:
  Handle<Object>& handle;
  void (*release)(Object*);
  Object* object = nullptr;
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
