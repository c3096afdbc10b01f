#pragma once

// The built program as a process.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace TestSupport {

struct Outcome {
  int exitStatus = -1;  // -1: ended by `signal`
  int signal = 0;
  std::string out, err;
};

/// A folder of its own for each test, removed at its end.
class TemporaryFolder {
public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string operator/(std::string_view name) const { return path / name; }
  /// Names of what stands in it, hidden ones too, in order.
  std::vector<std::string> Names() const;
  /// Runs a line of shell in it, in which $TOOL is the program.
  Outcome Run(const std::string& line) const;

private:
  std::filesystem::path path;
};

/// Where the program is.
std::string ToolPath();

/// Runs the program with `arguments`, standard input empty, and waits for its end.
Outcome RunTool(const std::vector<std::string>& arguments);

/// Fails the test where `part` does not occur in `text`.
void ExpectPart(const std::string& text, std::string_view part, std::string_view where = {});

/// The program with standard error on a terminal.
class ToolOnTerminal {
public:
  explicit ToolOnTerminal(const std::vector<std::string>& arguments);
  ~ToolOnTerminal();
  ToolOnTerminal(const ToolOnTerminal&) = delete;
  ToolOnTerminal& operator=(const ToolOnTerminal&) = delete;

  /// Reads until `text` has appeared; false at the program's end.
  bool WaitFor(std::string_view text);
  void Kill(int signal);
  /// Reads to the program's end; `err` is all that was read.
  Outcome Finish();

private:
  bool ReadSome();

  int terminal = -1;
  int process = -1;
  std::string seen;
};

void WriteFile(const std::string& path, std::string_view bytes);
std::string ReadFile(const std::string& path);

}  // namespace TestSupport
