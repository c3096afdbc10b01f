#include "apps/tool_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <pty.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace TestSupport {
namespace {

Outcome OutcomeOf(int status) {
  Outcome outcome;
  if (WIFEXITED(status)) outcome.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) outcome.signal = WTERMSIG(status);
  return outcome;
}

std::string Quoted(const std::string& argument) {
  std::string text;
  for (const char c : argument)
    text += c == '\'' ? "'\\''" : std::string(1, c);
  return '\'' + text + '\'';
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
  const TemporaryFolder other;
  const std::string whole = "exec 2> " + other / "err" +
                            " < /dev/null; TOOL='" KALVRIN_TOOL "'; cd " + path.string() + " && " +
                            line;
  std::FILE* const shell = popen(whole.c_str(), "r");
  if (!shell) throw std::runtime_error("cannot start a shell");
  std::string out;
  for (int c = std::getc(shell); c != EOF; c = std::getc(shell))
    out += static_cast<char>(c);
  Outcome outcome = OutcomeOf(pclose(shell));
  outcome.out = out;
  outcome.err = ReadFile(other / "err");
  return outcome;
}

std::string ToolPath() {
  return KALVRIN_TOOL;
}

Outcome RunTool(const std::vector<std::string>& arguments) {
  std::string line = "\"$TOOL\"";
  for (const std::string& argument : arguments)
    line += ' ' + Quoted(argument);
  return TemporaryFolder().Run(line);
}

void ExpectPart(const std::string& text, std::string_view part, std::string_view where) {
  EXPECT_NE(text.find(part), std::string::npos) << where << ": no '" << part << "' in\n" << text;
}

ToolOnTerminal::ToolOnTerminal(const std::vector<std::string>& arguments) {
  std::string tool = KALVRIN_TOOL;
  std::vector<char*> values = {tool.data()};
  for (const std::string& argument : arguments)
    values.push_back(const_cast<char*>(argument.c_str()));
  values.push_back(nullptr);
  process = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (process < 0) throw std::runtime_error("no terminal");
  if (process > 0) return;
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(null, STDIN_FILENO);
  dup2(null, STDOUT_FILENO);
  execv(values[0], values.data());
  _exit(127);
}

ToolOnTerminal::~ToolOnTerminal() {
  if (process > 0) {
    Kill(SIGKILL);
    waitpid(process, nullptr, 0);
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
  int status = 0;
  waitpid(process, &status, 0);
  process = -1;
  Outcome outcome = OutcomeOf(status);
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
