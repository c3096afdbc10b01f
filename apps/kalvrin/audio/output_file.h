#pragma once

#include "audio/descriptor.h"

#include <string>
#include <sys/types.h>

namespace Orvik::Tesmo::Tool {

/// A file that appears under its name whole, at Commit, or not at all: until then it has no name,
/// so that nothing is left behind however the process ends. A present file of that name is replaced
/// at Commit, in one step; a symbolic link is followed.
///
/// "-" (standard output), devices and pipes get everything at Commit.
class OutputFile {
public:
  /// Refusal where the file cannot be made.
  explicit OutputFile(const std::string& path);

  /// For reading, writing and seeking.
  int Get() const { return contents.Get(); }

  /// What messages call it.
  const std::string& Name() const { return name; }

  /// Refusal where it cannot be finished; then there is no new file under the name.
  void Commit();

private:
  void Inspect(const std::string& path);
  void Publish();
  bool GiveName(const std::string& path);
  void CopyTo(const std::string& path);

  std::string name;
  std::string target;  // the path to appear under; empty when `stream` is written to
  Descriptor stream;   // a device or a pipe
  bool toStandardOutput = false;
  mode_t keptMode = 0;  // of the file to be replaced; 0 for none
  Descriptor contents;
};

}  // namespace Orvik::Tesmo::Tool
