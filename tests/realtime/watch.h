#pragma once

// A thread under watch. A program that links this has the allocator and the locks and waits of the
// C and C++ libraries replaced by functions that count and pass on, and the kernel reports every
// system call of the watched thread before it is made.

#include <array>
#include <functional>
#include <string>

namespace TestSupport {

/// A wake-up is a sem_post, which waits for nobody.
enum class Act { Allocation, Release, Wait, WakeUp, SystemCall };
inline constexpr std::array<const char*, 5> actNames = {
    "allocations", "releases", "locks and waits", "wake-ups", "system calls"};

/// How often each Act was seen.
struct Tally {
  std::array<long, actNames.size()> counts = {};

  long operator[](Act act) const { return counts[static_cast<std::size_t>(act)]; }
  long Sum() const;
};

/// What happened on the watched thread. An act is the engine's when the engine is anywhere among
/// its callers, else it is ours: the library's or the test's own.
struct Observed {
  Tally ours, engines;
  /// The first of ours of each act that was seen: "malloc" or "system call 110", and its callers
  /// from the innermost, as backtrace_symbols writes them.
  std::array<std::string, actNames.size()> firstOfOurs;
  /// The kernel let itself be asked to report system calls; it may not in a sandbox.
  bool seesSystemCalls = false;

  /// All of firstOfOurs.
  std::string Text() const;
};

/// Runs `work` on a thread of its own, watched from its first to its last instruction, so that the
/// arrays it wants must exist. Other threads are not watched. `work` may start no thread.
Observed RunWatched(const std::function<void()>& work);

}  // namespace TestSupport
