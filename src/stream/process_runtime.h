#pragma once

#include "platform/platform.h"

#include <memory>

namespace Orvik::Tesmo {

/// The inference engine of this process: opened from GetLibraryFolder() at the first call, once,
/// and released when the library is unloaded, or with the last reference where a host keeps a
/// stream in a static object of its own and so beyond the statics here. On any thread. An engine
/// that is missing or unusable at the first call stays so; its failure is thrown by every call
/// (ThrowForResultCode). Memory that runs out at the first call is thrown as std::bad_alloc, and
/// the next call starts afresh.
std::shared_ptr<Platform::Runtime> ProcessRuntime();

}  // namespace Orvik::Tesmo
