#pragma once

#include <string>

namespace Orvik::Tesmo::Tool {

/// The folder for the stems: made where it is missing, and then removed again at the end of the
/// object's life if nothing has come to stand in it.
class StemFolder {
public:
  /// Refusal where it cannot be made.
  explicit StemFolder(std::string path);
  ~StemFolder();
  StemFolder(const StemFolder&) = delete;
  StemFolder& operator=(const StemFolder&) = delete;

private:
  std::string path;
  bool isOurs;
};

}  // namespace Orvik::Tesmo::Tool
