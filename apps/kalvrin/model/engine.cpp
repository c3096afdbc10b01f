#include "model/engine.h"

#include "command_line/errors.h"
#include "model/installed_file.h"
#include "stream/set_up.h"

namespace Orvik::Tesmo::Tool {

std::shared_ptr<Platform::Runtime> OpenEngine() {
  const std::string folder = InstalledFile("libonnxruntime.so.1").parent_path();
  try {
    return OpenRuntime(folder);
  } catch (...) {
    throw Refusal("the inference engine " + folder +
                  "/libonnxruntime.so.1 cannot be used; version 1.20 or later for this machine is "
                  "needed, and enough memory");
  }
}

}  // namespace Orvik::Tesmo::Tool
