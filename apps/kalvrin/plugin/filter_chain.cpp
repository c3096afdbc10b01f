#include "plugin/filter_chain.h"

#include "wrapper/ports.h"

#include <iomanip>
#include <sstream>

namespace Orvik::Tesmo::Tool {
std::string MicrophoneName(const Plugin::Description& description) {
  return "kalvrin." + description.symbol;
}

std::string FilterChainText(const FilterChain& chain) {
  const std::string name = MicrophoneName(chain.description);
  const std::string channels = chain.channelCount == 1
                                   ? "audio.channels = 1 audio.position = [ MONO ]"
                                   : "audio.channels = 2 audio.position = [ FL FR ]";
  std::ostringstream out;
  out.exceptions(std::ios::badbit);  // or it would go on without memory
  out << R"(context.spa-libs = {
  audio.convert.* = audioconvert/libspa-audioconvert
  support.*       = support/libspa-support
}
context.modules = [
  { name = libpipewire-module-rt args = { nice.level = -11 } flags = [ ifexists nofail ] }
  { name = libpipewire-module-protocol-native }
  { name = libpipewire-module-client-node }
  { name = libpipewire-module-adapter }
  { name = libpipewire-module-filter-chain
    args = {
      node.description = )"
      << std::quoted(chain.description.name)
      << "\n      media.name = " << std::quoted(chain.description.name) << R"(
      filter.graph = {
        nodes = [
          { type = ladspa
            name = model
            plugin = )"
      << std::quoted(chain.library.string()) << "\n            label = " << chain.description.symbol
      << '_' << Plugin::FormName(chain.channelCount) << "\n            control = {\n";
  for (const auto& [port, value] : chain.controls)
    out << "              " << std::quoted(port) << " = " << value << '\n';
  out << R"(            }
          }
        ]
      }
      capture.props = {
        node.name = )"
      << std::quoted("capture." + name) << "\n        node.passive = true\n        " << channels
      << '\n';
  if (!chain.target.empty()) out << "        target.object = " << std::quoted(chain.target) << '\n';
  out << R"(      }
      playback.props = {
        node.name = )"
      << std::quoted(name) << "\n        media.class = Audio/Source\n        " << channels << R"(
      }
    }
  }
]
)";
  return out.str();
}

}  // namespace Orvik::Tesmo::Tool
