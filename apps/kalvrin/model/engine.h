#pragma once

#include "platform/platform.h"

#include <memory>

namespace Orvik::Tesmo::Tool {

/// The inference engine, opened from where InstalledFile finds it; also selects the kernels for
/// this processor. It outlives all that is made of it. Refusal where it is missing or does not
/// work.
std::shared_ptr<Platform::Runtime> OpenEngine();

}  // namespace Orvik::Tesmo::Tool
