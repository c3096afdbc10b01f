#include "system/process.h"

#include "command_line/errors.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace Orvik::Tesmo::Tool {
namespace {

volatile std::sig_atomic_t pendingSignal = 0;

void Remember(int signal) {
  pendingSignal = signal;
}

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

/// Returns the length of the message; 0 where the other end is closed.
std::size_t Receive(int line, void* bytes, std::size_t size) {
  for (;;) {
    const ssize_t count = recv(line, bytes, size, 0);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) return 0;
    ThrowIfInterrupted();
  }
}

bool Send(int line, const void* bytes, std::size_t size) {
  for (;;) {
    if (send(line, bytes, size, MSG_NOSIGNAL) >= 0) return true;
    if (errno != EINTR) return false;
    ThrowIfInterrupted();
  }
}

/// What the child runs: one task after the other, until the other end closes.
[[noreturn]] void Serve(int line, const Worker::Work& work) {
  try {
    std::size_t task = 0;
    while (Receive(line, &task, sizeof task) == sizeof task) {
      const std::string answer = work(task);
      if (!Send(line, answer.data(), std::min(answer.size(), Worker::longestAnswer))) break;
    }
  } catch (const Interrupted& interrupted) {
    EndBySignal(interrupted.signal);
  } catch (...) {
    std::_Exit(ExitStatus::Refused);  // no unwinding: the objects are the parent's
  }
  std::_Exit(ExitStatus::Ok);
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

ProgramResult RunProgram(const std::vector<std::string>& command, bool withErrors) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0)
    throw Refusal("no line to another process can be made: " + SystemErrorText(errno));
  const Descriptor from(ends[0]);
  Descriptor to(ends[1]);
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  const pid_t child = fork();
  if (child < 0) throw Refusal("no process can be made: " + SystemErrorText(errno));
  if (child == 0) {
    const int nothing = open("/dev/null", O_RDWR);
    dup2(nothing, STDIN_FILENO);
    dup2(to.Get(), STDOUT_FILENO);
    dup2(withErrors ? to.Get() : nothing, STDERR_FILENO);
    execvp(arguments[0], arguments.data());
    std::_Exit(ProgramResult::notFound);
  }
  to = Descriptor();
  ProgramResult result;
  char bytes[4096];
  for (long count = 0; (count = ReadFully(from.Get(), bytes, sizeof bytes)) > 0;)
    result.out.append(bytes, static_cast<std::size_t>(count));
  const int status = WaitFor(child);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

Worker::Worker(const Work& work) {
  // A socket of messages: a task or an answer arrives whole.
  int lines[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, lines) != 0)
    throw Refusal("no line to another process can be made: " + SystemErrorText(errno));
  line = Descriptor(lines[0]);
  Descriptor childLine(lines[1]);
  process = fork();
  if (process < 0) throw Refusal("no process can be made: " + SystemErrorText(errno));
  if (process == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    Serve(childLine.Get(), work);
  }
}

Worker::Worker(Worker&& other) noexcept
    : process(std::exchange(other.process, -1)), line(std::move(other.line)) {}

Worker& Worker::operator=(Worker&& other) noexcept {
  std::swap(process, other.process);
  std::swap(line, other.line);
  return *this;
}

Worker::~Worker() {
  if (process < 0) return;
  // The signal ends a render. A child that is about to wait for a task would miss it, but then
  // finds the line shut down. Closing the descriptor would not do: later children have it, too.
  shutdown(line.Get(), SHUT_RDWR);
  kill(process, SIGTERM);
  while (waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void Worker::Give(std::size_t task) {
  // Where it cannot be sent, the line closes, the child ends, and TakeAnswer returns nothing.
  if (!Send(line.Get(), &task, sizeof task)) shutdown(line.Get(), SHUT_RDWR);
}

std::optional<std::string> Worker::TakeAnswer() {
  std::string answer(longestAnswer, '\0');
  answer.resize(Receive(line.Get(), answer.data(), answer.size()));
  if (answer.empty()) return std::nullopt;
  return answer;
}

std::string Worker::HowItEnded() {
  shutdown(line.Get(), SHUT_RDWR);  // in case it still waits for a task
  int status = 0;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR)
    ThrowIfInterrupted();
  process = -1;
  return WIFSIGNALED(status) ? "it ended by signal " + std::to_string(WTERMSIG(status))
                             : "it ended with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace Orvik::Tesmo::Tool
