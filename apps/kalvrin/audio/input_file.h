#pragma once

#include "audio/descriptor.h"

#include <string>

namespace Orvik::Tesmo::Tool {

/// A file open for reading and seeking. "-" (standard input) and pipes are read to their end first,
/// into a file without a name.
class InputFile {
public:
  /// Refusal where it cannot be read.
  explicit InputFile(const std::string& path);

  int Get() const { return file.Get(); }
  const std::string& Name() const { return name; }

private:
  std::string name;
  Descriptor file;
};

}  // namespace Orvik::Tesmo::Tool
