#pragma once

// Signals to this process, and the child processes that shield from faults in the engine.

#include "system/files.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

namespace Orvik::Tesmo::Tool {

/// A signal asked the tool to end. Thrown so that every file being written is let go of; main then
/// ends the process by the same signal.
struct Interrupted {
  int signal;
};

/// From here on SIGINT, SIGTERM and SIGHUP are remembered instead of ending the process, and a file
/// that grows past the limit of the process is a failed write instead of a signal.
void CatchSignals();

/// Throws Interrupted when one has come. Long loops and interrupted system calls ask this.
void ThrowIfInterrupted();

/// Ends the process as the signal would have.
[[noreturn]] void EndBySignal(int signal);

/// Returns in a child process. The engine can be brought to end its process by a model (a division
/// of integers by zero will do); the parent waits here, ends with the exit status of the child, and
/// says what happened where a fault ended it: Refusal. Signals that ask to end go to both. Call it
/// before there is an engine or a thread, with nothing printed.
void ContinueInChild();

/// A child process that does one task after the other. What brings it to its end, a fault of the
/// engine among it, ends nothing but that task.
class Worker {
public:
  /// What the child does: gives the answer to a task, throws Interrupted only. An answer is at most
  /// `longestAnswer` bytes long; more is cut.
  using Work = std::function<std::string(std::size_t task)>;
  static constexpr std::size_t longestAnswer = 1 << 16;

  /// Call it while there is no engine and no thread in this process. Refusal where no process can
  /// be made.
  explicit Worker(const Work& work);
  /// Ends the child and waits for it.
  ~Worker();
  Worker(Worker&& other) noexcept;
  Worker& operator=(Worker&& other) noexcept;

  /// One at a time.
  void Give(std::size_t task);
  /// For poll: readable once there is an answer or the child has ended.
  int Get() const { return line.Get(); }
  /// Nothing where the child has ended instead; HowItEnded says how.
  std::optional<std::string> TakeAnswer();
  /// Waits for the child. "it ended by signal 8".
  std::string HowItEnded();

private:
  pid_t process = -1;
  Descriptor line;
};

}  // namespace Orvik::Tesmo::Tool
