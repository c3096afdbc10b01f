#include "plugin/host_files.h"

#include "lv2/uri.h"
#include "wrapper/ports.h"

#include <iomanip>
#include <sstream>

namespace Orvik::Tesmo::Tool {
namespace {

using Hosting::Description;
using Plugin::Port;
using Plugin::Role;

constexpr const char* prefixes = R"(@prefix atom: <http://lv2plug.in/ns/ext/atom#> .
@prefix bufsz: <http://lv2plug.in/ns/ext/buf-size#> .
@prefix doap: <http://usefulinc.com/ns/doap#> .
@prefix lv2: <http://lv2plug.in/ns/lv2core#> .
@prefix opts: <http://lv2plug.in/ns/ext/options#> .
@prefix patch: <http://lv2plug.in/ns/ext/patch#> .
@prefix pg: <http://lv2plug.in/ns/ext/port-groups#> .
@prefix pprops: <http://lv2plug.in/ns/ext/port-props#> .
@prefix rdfs: <http://www.w3.org/2000/01/rdf-schema#> .
@prefix rsz: <http://lv2plug.in/ns/ext/resize-port#> .
@prefix state: <http://lv2plug.in/ns/ext/state#> .
@prefix units: <http://lv2plug.in/ns/extensions/units#> .
@prefix urid: <http://lv2plug.in/ns/ext/urid#> .
@prefix work: <http://lv2plug.in/ns/ext/worker#> .
)";

/// What a plugin says that takes any model.
constexpr const char* anyModelClauses =
    "  lv2:requiredFeature urid:map ;\n"
    "  lv2:extensionData work:interface, state:interface ;\n"
    "  patch:writable <urn:kalvrin:model> ;\n  patch:readable <urn:kalvrin:status> ;\n"
    "  lv2:optionalFeature opts:options, work:schedule, state:threadSafeRestore, state:mapPath, "
    "state:freePath";

/// What is special to ports of this role.
const char* Particulars(Role role) {
  switch (role) {
  case Role::Enabled:
    return " ;\n    lv2:portProperty lv2:toggled ;\n    lv2:designation lv2:enabled";
  case Role::FreeWheel:
    return " ;\n    lv2:portProperty lv2:toggled, pprops:notOnGUI ;\n"
           "    lv2:designation lv2:freeWheeling";
  case Role::Master:
  case Role::Rest:
  case Role::ClassGain:
    // no scale point for mute: GStreamer takes a port that has one for a list of choices
    return " ;\n    units:unit units:db";
  case Role::Mode:
    return " ;\n    lv2:portProperty lv2:integer, lv2:enumeration, pprops:notAutomatic ;\n"
           "    lv2:scalePoint [ rdfs:label \"Automatic\" ; rdf:value 0 ] ,\n"
           "      [ rdfs:label \"Direct\" ; rdf:value 1 ] ,\n"
           "      [ rdfs:label \"Spread\" ; rdf:value 2 ]";
  case Role::Latency:
    return " ;\n    lv2:portProperty lv2:integer, lv2:reportsLatency ;\n"
           "    lv2:designation lv2:latency ;\n    units:unit units:frame";
  case Role::HighBand:
    return " ;\n    lv2:portProperty lv2:integer, lv2:enumeration ;\n"
           "    lv2:scalePoint [ rdfs:label \"Follow\" ; rdf:value 0 ] ,\n"
           "      [ rdfs:label \"Rest\" ; rdf:value 1 ]";
  case Role::MessagesIn:
  case Role::MessagesOut:
    return " ;\n    atom:bufferType atom:Sequence ;\n    atom:supports patch:Message ;\n"
           "    rsz:minimumSize 16384 ;\n    lv2:designation lv2:control ;\n"
           "    lv2:portProperty lv2:connectionOptional";
  case Role::Load:
    return " ;\n    lv2:portProperty pprops:notOnGUI ;\n    units:unit units:pc";
  case Role::Late:
    return " ;\n    lv2:portProperty lv2:integer, pprops:notOnGUI";
  default:
    return "";
  }
}

/// The group of a form's inputs or outputs, where these are several.
std::string GroupUri(const std::string& plugin, bool isWritten) {
  return "<" + plugin + (isWritten ? "#out>" : "#in>");
}

void WriteGroups(std::ostream& out, const std::string& plugin, unsigned channelCount) {
  if (channelCount == 1) return;
  for (const bool isWritten : {false, true})
    out << '\n'
        << GroupUri(plugin, isWritten) << "\n  a "
        << (isWritten ? "pg:OutputGroup, " : "pg:InputGroup, ")
        << (channelCount == 2 ? "pg:StereoGroup" : "pg:DiscreteGroup") << " ;\n  lv2:symbol \""
        << (isWritten ? "out" : "in") << "\" ;\n  lv2:name \"" << (isWritten ? "Out" : "In")
        << "\" .\n";
}

void WriteGroupOf(std::ostream& out, const Port& port, const std::string& plugin,
                  unsigned channelCount) {
  if (!port.IsAudio() || channelCount == 1) return;
  out << " ;\n    pg:group " << GroupUri(plugin, port.IsWritten());
  if (channelCount == 2)
    out << " ;\n    lv2:designation " << (port.index == 0 ? "pg:left" : "pg:right");
}

void WritePort(std::ostream& out, const Port& port, std::size_t number, const std::string& plugin,
               unsigned channelCount) {
  out << "    a " << (port.IsWritten() ? "lv2:OutputPort" : "lv2:InputPort") << ", "
      << (port.IsAudio()      ? "lv2:AudioPort"
          : port.IsMessages() ? "atom:AtomPort"
                              : "lv2:ControlPort")
      << " ;\n    lv2:index " << number << " ;\n    lv2:symbol \"" << port.symbol
      << "\" ;\n    lv2:name " << std::quoted(port.name);
  if (!port.IsAudio() && !port.IsMessages()) {
    out << " ;\n    lv2:minimum " << port.lowest << " ;\n    lv2:maximum " << port.highest;
    if (!port.IsWritten()) out << " ;\n    lv2:default " << port.initial;
  }
  WriteGroupOf(out, port, plugin, channelCount);
  out << Particulars(port.role) << '\n';
}

void WritePlugin(std::ostream& out, const Description& d, unsigned channelCount) {
  const std::string uri = Plugin::Lv2Uri(d, channelCount);
  WriteGroups(out, uri, channelCount);
  out << "\n<" << uri << ">\n  a lv2:Plugin, lv2:FilterPlugin ;\n"
      << "  doap:name " << std::quoted(d.name + " (" + Plugin::FormName(channelCount) + ")")
      << " ;\n"
      << "  doap:license <http://opensource.org/licenses/Apache-2.0> ;\n"
         "  lv2:minorVersion 0 ;\n  lv2:microVersion 1 ;\n"
      << (d.takesAnyModel ? anyModelClauses : "  lv2:optionalFeature opts:options, urid:map")
      << (d.isAlwaysSpread ? ", lv2:hardRTCapable" : "")
      << " ;\n  opts:supportedOption bufsz:nominalBlockLength, bufsz:maxBlockLength ;\n"
      << (channelCount == 1 ? ""
                            : "  pg:mainInput " + GroupUri(uri, false) + " ;\n  pg:mainOutput " +
                                  GroupUri(uri, true) + " ;\n")
      << "  lv2:port [\n";
  const auto ports = Plugin::PortsOf(d, channelCount, Plugin::Interface::Lv2);
  for (std::size_t i = 0; i < ports.size(); ++i) {
    if (i != 0) out << "  ] , [\n";
    WritePort(out, ports[i], i, uri, channelCount);
  }
  out << "  ] .\n";
}

}  // namespace

std::string ManifestText(const Description& d, const std::string& binary,
                         const std::string& plugins) {
  std::ostringstream out;
  out.exceptions(std::ios::badbit);  // otherwise it ignores a lack of memory
  out << "@prefix lv2: <http://lv2plug.in/ns/lv2core#> .\n"
         "@prefix rdfs: <http://www.w3.org/2000/01/rdf-schema#> .\n";
  for (const unsigned count : d.channelCounts)
    out << "\n<" << Plugin::Lv2Uri(d, count) << ">\n  a lv2:Plugin ;\n  lv2:binary <" << binary
        << "> ;\n  rdfs:seeAlso <" << plugins << "> .\n";
  return out.str();
}

std::string PluginsText(const Description& d) {
  std::ostringstream out;
  out.exceptions(std::ios::badbit);  // otherwise it ignores a lack of memory
  out << std::fixed << std::setprecision(1)
      << "@prefix rdf: <http://www.w3.org/1999/02/22-rdf-syntax-ns#> .\n"
      << prefixes;
  if (d.takesAnyModel)
    out << "\n<" << Plugin::modelUri
        << ">\n  a lv2:Parameter ;\n  rdfs:label \"Model\" ;\n  rdfs:range atom:Path .\n\n<"
        << Plugin::statusUri
        << ">\n  a lv2:Parameter ;\n  rdfs:label \"Status\" ;\n  rdfs:range atom:String .\n";
  for (const unsigned count : d.channelCounts)
    WritePlugin(out, d, count);
  return out.str();
}

std::string DeviceNode(const std::string& symbol) {
  return "kalvrin." + symbol;
}

std::string ControlledNode(const std::string& symbol, bool isSink) {
  return (isSink ? "" : "capture.") + DeviceNode(symbol);
}

std::string ControlLine(const std::string& control, double value) {
  std::ostringstream out;
  out.exceptions(std::ios::badbit);
  out << "              " << std::quoted(control) << " = " << value << '\n';
  return out.str();
}

std::optional<std::pair<std::string, double>> ParseControl(const std::string& line) {
  std::istringstream in(line);
  std::pair<std::string, double> control;
  char equals = 0;
  if ((in >> std::ws).peek() != '"') return std::nullopt;
  in >> std::quoted(control.first) >> equals >> control.second;
  if (!in || equals != '=') return std::nullopt;
  return control;
}

std::string FilterChainText(const FilterChain& chain) {
  const std::string& symbol = chain.description.symbol;
  const std::string channels = chain.channelCount == 1
                                   ? "audio.channels = 1 audio.position = [ MONO ]"
                                   : "audio.channels = 2 audio.position = [ FL FR ]";
  std::ostringstream out;
  out.exceptions(std::ios::badbit);  // otherwise it ignores a lack of memory
  const auto writeDevice = [&](const char* mediaClass) {
    out << "        node.name = " << std::quoted(DeviceNode(symbol))
        << "\n        media.class = " << mediaClass << "\n        " << channels << '\n';
  };
  const auto writeStream = [&](const char* direction) {
    out << "        node.name = " << std::quoted(direction + DeviceNode(symbol))
        << "\n        node.passive = true\n        " << channels << '\n';
    if (!chain.target.empty())
      out << "        target.object = " << std::quoted(chain.target) << '\n';
  };
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
            name = )"
      << chainNode << "\n            plugin = " << std::quoted(chain.library.string())
      << "\n            label = " << symbol << '_' << Plugin::FormName(chain.channelCount)
      << "\n            control = {\n";
  for (const auto& [control, value] : chain.controls)
    out << ControlLine(control, value);
  out << R"(            }
          }
        ]
      }
      capture.props = {
)";
  if (chain.isSink)
    writeDevice("Audio/Sink");
  else
    writeStream("capture.");
  out << R"(      }
      playback.props = {
)";
  if (chain.isSink)
    writeStream("playback.");
  else
    writeDevice("Audio/Source");
  out << R"(      }
    }
  }
]
)";
  return out.str();
}

std::string UnitText(const std::string& name, const std::string& file) {
  std::string escaped;
  for (const char c : file)
    escaped += c == '%'                ? "%%"
               : c == '$'              ? "$$"
               : c == '"' || c == '\\' ? std::string{'\\', c}
                                       : std::string{c};
  return "[Unit]\nDescription=kalvrin: " + name +
         "\nAfter=pipewire.service\nBindsTo=pipewire.service\n\n[Service]\n"
         "ExecStart=pipewire -c \"" +
         escaped +
         "\"\nRestart=on-failure\nSlice=session.slice\n\n[Install]\nWantedBy=pipewire.service\n";
}

}  // namespace Orvik::Tesmo::Tool
