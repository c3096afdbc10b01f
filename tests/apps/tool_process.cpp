#include "apps/tool_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/wait.h>

namespace TestSupport {
namespace {

/// The engine warns once where it does not know the processor's vendor, as in an emulator.
std::string WithoutEnginesWarning(std::string text) {
  const auto at = text.find("onnxruntime cpuid_info warning: ");
  if (at != std::string::npos) text.erase(at, text.find('\n', at) - at + 1);
  return text;
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
  const int status = pclose(shell);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out,
          WithoutEnginesWarning(ReadFile(other / "err"))};
}

Outcome TemporaryFolder::RunOnTerminal(const std::string& arguments, const std::string& text,
                                       const std::string& action) const {
  const TemporaryFolder other;
  const std::string screen = other / "screen", pid = other / "pid";
  Outcome outcome =
      Run("true; { for i in $(seq 500); do grep -q '" + text + "' " + screen +
          " && break; sleep 0.01; done; PID=$(cat " + pid + "); " + action +
          "; } > /dev/null 2>&1 & script -qefc \"echo \\$\\$ > " + pid + "; exec $TOOL " +
          arguments + " > /dev/null\" " + screen + " < /dev/null > /dev/null");
  outcome.err = WithoutEnginesWarning(ReadFile(screen));
  return outcome;
}

std::string ToolPath() {
  return KALVRIN_TOOL;
}

void ExpectPart(const std::string& text, std::string_view part, std::string_view where) {
  EXPECT_NE(text.find(part), std::string::npos) << where << ": no '" << part << "' in\n" << text;
}

void WriteFile(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace TestSupport
