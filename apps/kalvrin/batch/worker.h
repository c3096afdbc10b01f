#pragma once

#include "audio/descriptor.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

namespace Orvik::Tesmo::Tool {

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
