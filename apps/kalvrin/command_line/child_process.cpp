#include "command_line/child_process.h"

#include "command_line/errors.h"
#include "command_line/interrupt.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Orvik::Tesmo::Tool {
namespace {

int WaitFor(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw Refusal("the process that runs the engine is lost");
    try {
      ThrowIfInterrupted();
    } catch (const Interrupted& interrupted) {
      kill(child, interrupted.signal);
    }
  }
  return status;
}

}  // namespace

void ContinueInChild() {
  const pid_t child = fork();
  if (child < 0) throw Refusal("no process can be made to run the engine in");
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    return;
  }
  const int status = WaitFor(child);
  if (WIFEXITED(status)) std::_Exit(WEXITSTATUS(status));
  const int signal = WTERMSIG(status);
  if (signal == SIGINT || signal == SIGTERM || signal == SIGHUP || signal == SIGKILL)
    EndBySignal(signal);
  throw Refusal("the engine ended its process (signal " + std::to_string(signal) +
                ") while it ran the model");
}

}  // namespace Orvik::Tesmo::Tool
