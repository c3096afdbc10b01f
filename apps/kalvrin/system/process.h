#pragma once

// Signals to this process, and child processes, so that a crash of the engine ends only a child.

#include "system/files.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// Thrown when a signal asked the tool to end, so that all files are closed first. main then ends
/// the process by the same signal.
struct Interrupted {
  int signal;
};

/// After this call SIGINT, SIGTERM and SIGHUP are remembered instead of ending the process, and a
/// write past the largest size of a file fails instead of raising a signal.
void CatchSignals();

/// Throws Interrupted when a signal has come. For long loops and interrupted system calls.
void ThrowIfInterrupted();

/// Ends the process by the signal.
[[noreturn]] void EndBySignal(int signal);

/// Returns in a child process; the parent waits here and ends with the child's exit status. A model
/// can make the engine crash (a division of integers by zero); then the parent throws Refusal,
/// which says so. Signals that ask to end go to both. Call it before there is an engine or a
/// thread, with nothing printed.
void ContinueInChild();

/// How a program ended, and what it printed.
struct ProgramResult {
  static constexpr int notFound = 127;
  int status = 0;   // its exit status; of one that a signal ended, 128 and the signal
  std::string out;  // standard output
};

/// Runs a program of PATH to its end, without standard input. What it writes to standard error is
/// in `out` as well, or lost. Throws Refusal where no process can be made.
ProgramResult RunProgram(const std::vector<std::string>& command, bool withErrors);

/// A child process that does one task after the other. Where it crashes, only its task is lost.
class Worker {
public:
  /// What the child does: returns the answer to a task, and throws nothing but Interrupted. An
  /// answer longer than `longestAnswer` bytes is cut.
  using Work = std::function<std::string(std::size_t task)>;
  static constexpr std::size_t longestAnswer = 1 << 16;

  /// Call it while there is no engine and no thread in this process. Throws Refusal where no
  /// process can be made.
  explicit Worker(const Work& work);
  /// Ends the child and waits for it.
  ~Worker();
  Worker(Worker&& other) noexcept;
  Worker& operator=(Worker&& other) noexcept;

  /// Sends a task. The answer has to be taken before the next.
  void Give(std::size_t task);
  /// A descriptor for poll: readable once there is an answer or the child has ended.
  int Get() const { return line.Get(); }
  /// Returns nothing where the child has ended; HowItEnded says how.
  std::optional<std::string> TakeAnswer();
  /// Waits for the child. "it ended by signal 8".
  std::string HowItEnded();

private:
  pid_t process = -1;
  Descriptor line;
};

}  // namespace Orvik::Tesmo::Tool
