#include "apps/tool_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <pty.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace TestSupport {
namespace {

/// The three standard descriptors of a process to start.
struct Streams {
  int in, out, err;
};

int Start(const std::vector<std::string>& arguments, const Streams& streams) {
  std::vector<char*> values;
  values.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments)
    values.push_back(const_cast<char*>(argument.c_str()));
  values.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, streams.in, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, streams.out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, streams.err, STDERR_FILENO);
  pid_t process = -1;
  const int error = posix_spawn(&process, values[0], &actions, nullptr, values.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + arguments[0]);
  return process;
}

Outcome Await(int process) {
  int status = 0;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  Outcome outcome;
  if (WIFEXITED(status)) outcome.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) outcome.signal = WTERMSIG(status);
  return outcome;
}

Outcome Run(const std::vector<std::string>& arguments) {
  const TemporaryFolder folder;
  const auto create = [&](const char* name) {
    return open((folder / name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  };
  const Streams streams{open("/dev/null", O_RDONLY | O_CLOEXEC), create("out"), create("err")};
  Outcome outcome = Await(Start(arguments, streams));
  for (const int stream : {streams.in, streams.out, streams.err})
    close(stream);
  outcome.out = ReadFile(folder / "out");
  outcome.err = ReadFile(folder / "err");
  return outcome;
}

std::vector<std::string> WithTool(const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {KALVRIN_TOOL};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
  std::string name = std::filesystem::temp_directory_path() / "kalvrin-test-XXXXXX";
  if (!mkdtemp(name.data())) throw std::runtime_error("cannot make " + name);
  path = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

std::vector<std::string> TemporaryFolder::Names() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

Outcome TemporaryFolder::Run(const std::string& line) const {
  return TestSupport::Run(
      {"/bin/sh", "-c", "TOOL='" KALVRIN_TOOL "'; cd " + path.string() + " && " + line});
}

std::string ToolPath() {
  return KALVRIN_TOOL;
}

Outcome RunTool(const std::vector<std::string>& arguments) {
  return Run(WithTool(arguments));
}

void ExpectPart(const std::string& text, std::string_view part, std::string_view where) {
  EXPECT_NE(text.find(part), std::string::npos) << where << ": no '" << part << "' in\n" << text;
}

ToolOnTerminal::ToolOnTerminal(const std::vector<std::string>& arguments) {
  int side = -1;
  if (openpty(&terminal, &side, nullptr, nullptr, nullptr) != 0)
    throw std::runtime_error("no terminal");
  fcntl(terminal, F_SETFD, FD_CLOEXEC);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  process = Start(WithTool(arguments), {null, null, side});
  close(null);
  close(side);
}

ToolOnTerminal::~ToolOnTerminal() {
  if (process > 0) {
    Kill(SIGKILL);
    Await(process);
  }
  close(terminal);
}

bool ToolOnTerminal::ReadSome() {
  char bytes[512];
  const ssize_t count = read(terminal, bytes, sizeof bytes);
  if (count <= 0) return false;  // EIO: the other side is closed
  seen.append(bytes, static_cast<std::size_t>(count));
  return true;
}

bool ToolOnTerminal::WaitFor(std::string_view text) {
  while (seen.find(text) == std::string::npos)
    if (!ReadSome()) return false;
  return true;
}

void ToolOnTerminal::Kill(int signal) {
  kill(process, signal);
}

Outcome ToolOnTerminal::Finish() {
  while (ReadSome()) {
  }
  Outcome outcome = Await(process);
  process = -1;
  outcome.err = seen;
  return outcome;
}

void WriteFile(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace TestSupport
