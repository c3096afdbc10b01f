#include "command.h"

namespace Orvik::Tesmo::Tool {

std::span<const Command* const> Commands() {
  static constexpr const Command* all[] = {&infoCommand,     &checkCommand, &renderCommand,
                                           &adaptCommand,    &benchCommand, &pluginCommand,
                                           &pipewireCommand, &planCommand};
  return all;
}

}  // namespace Orvik::Tesmo::Tool
