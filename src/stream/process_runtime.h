#pragma once

#include "platform/platform.h"

namespace Orvik::Tesmo {

/// The inference engine of this process: opened from GetLibraryFolder() at the first call, once,
/// and released when the library is unloaded. On any thread. An engine that is missing or unusable
/// at the first call stays so; its failure is thrown by every call (ThrowForResultCode). Memory
/// that runs out at the first call is thrown as std::bad_alloc, and the next call starts afresh.
Platform::Runtime& ProcessRuntime();

}  // namespace Orvik::Tesmo
