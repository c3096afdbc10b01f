#pragma once

// The built program as a process.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace TestSupport {

struct Outcome {
  int exitStatus = -1;
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
  /// Runs the program with its standard error on a terminal. Once `text` has appeared there, a line
  /// of shell, `action`, runs, in which $PID is the program. `err` is all that the terminal showed;
  /// the exit status is 128 and the signal's number where a signal ended the program.
  Outcome RunOnTerminal(const std::string& arguments, const std::string& text,
                        const std::string& action) const;

private:
  std::filesystem::path path;
};

/// Where the program is.
std::string ToolPath();

/// Fails the test where `part` does not occur in `text`.
void ExpectPart(const std::string& text, std::string_view part, std::string_view where = {});

void WriteFile(const std::string& path, std::string_view bytes);
std::string ReadFile(const std::string& path);

}  // namespace TestSupport
