#pragma once

#include "failure/result_code.h"
#include "platform/platform.h"

#include <memory>

namespace Orvik::Tesmo::Platform {

/// The boundary over ONNX Runtime 1.20 or later. `module` is the handle of its open library. It
/// must stay open until `runtime` and every object made by it, also indirectly, are gone.
/// ClassNotRegistered for a null module, ClassNotAvailable for a library that is not the engine or
/// an engine that is too old. May be called on any thread and more than once.
ResultCode CreateOnnxRuntime(void* module, std::shared_ptr<Runtime>& runtime);

}  // namespace Orvik::Tesmo::Platform
