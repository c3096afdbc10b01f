#pragma once

#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// The bytes of a serialized model.
struct ModelFile {
  std::string path;
  std::vector<char> bytes;
};

/// Refusal where the file cannot be read, is empty, or is longer than a model can be (4 GiB).
ModelFile ReadModelFile(const std::string& path);

}  // namespace Orvik::Tesmo::Tool
