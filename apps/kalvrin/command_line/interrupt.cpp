#include "command_line/interrupt.h"

#include <csignal>
#include <cstdlib>
#include <initializer_list>
#include <unistd.h>

namespace Orvik::Tesmo::Tool {
namespace {

volatile std::sig_atomic_t pendingSignal = 0;

void Remember(int signal) {
  pendingSignal = signal;
}

}  // namespace

void CatchSignals() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction present {};
    sigaction(signal, nullptr, &present);
    // A caller that had it ignored (nohup) keeps it ignored.
    if (present.sa_handler == SIG_IGN) continue;
    struct sigaction action {};
    action.sa_handler = Remember;  // without SA_RESTART: a blocked read or write returns
    sigaction(signal, &action, nullptr);
  }
  std::signal(SIGXFSZ, SIG_IGN);
}

void ThrowIfInterrupted() {
  if (pendingSignal != 0) throw Interrupted{pendingSignal};
}

void EndBySignal(int signal) {
  std::signal(signal, SIG_DFL);
  kill(getpid(), signal);
  std::_Exit(128 + signal);
}

}  // namespace Orvik::Tesmo::Tool
