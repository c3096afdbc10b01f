#pragma once

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

}  // namespace Orvik::Tesmo::Tool
