#pragma once

#include "platform/platform.h"
#include "stream/runtime_modules.h"

#include <memory>
#include <string>

namespace Orvik::Tesmo::Tool {

/// The inference engine, opened from where InstalledFile finds it. Chooses the kernels for this
/// processor, too.
class Engine {
public:
  /// Refusal where it is missing or does not work.
  Engine();

  Platform::Runtime& Runtime() { return *runtime; }

private:
  RuntimeModules modules;
  std::shared_ptr<Platform::Runtime> runtime;
};

}  // namespace Orvik::Tesmo::Tool
