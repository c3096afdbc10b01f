// A host of LV2 plugins without a window: lists what is installed, or runs one channel of raw
// 32-bit floats through a plugin from standard input to standard output.
// usage: plugin-host                                      lists the plugins of kalvrin
//        plugin-host URI RATE [PORT=VALUE]... <in >out    PORT: the symbol of a control

#include <lilv/lilv.h>
#include <lv2/core/lv2.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

template <class T, void (*Free)(T*)>
struct Freeing {
  void operator()(T* object) const { Free(object); }
};
using World = std::unique_ptr<LilvWorld, Freeing<LilvWorld, lilv_world_free>>;
using Node = std::unique_ptr<LilvNode, Freeing<LilvNode, lilv_node_free>>;
using Instance = std::unique_ptr<LilvInstance, Freeing<LilvInstance, lilv_instance_free>>;

constexpr std::uint32_t blockFrames = 256;

void List(const LilvPlugins* plugins) {
  LILV_FOREACH(plugins, i, plugins) {
    const LilvPlugin* const plugin = lilv_plugins_get(plugins, i);
    const std::string uri = lilv_node_as_uri(lilv_plugin_get_uri(plugin));
    const Node name(lilv_plugin_get_name(plugin));
    if (uri.rfind("urn:kalvrin:", 0) == 0)
      std::printf("%s  %s\n", uri.c_str(), lilv_node_as_string(name.get()));
  }
}

int Fail(const std::string& why) {
  std::fprintf(stderr, "plugin-host: %s\n", why.c_str());
  return 1;
}

}  // namespace

int main(int count, char** arguments) {
  const World world(lilv_world_new());
  lilv_world_load_all(world.get());
  const LilvPlugins* const plugins = lilv_world_get_all_plugins(world.get());
  if (count < 3) {
    List(plugins);
    return 0;
  }
  const Node uri(lilv_new_uri(world.get(), arguments[1]));
  const LilvPlugin* const plugin = uri ? lilv_plugins_get_by_uri(plugins, uri.get()) : nullptr;
  if (!plugin) return Fail(std::string("there is no plugin ") + arguments[1]);
  const Instance instance(lilv_plugin_instantiate(plugin, std::atof(arguments[2]), nullptr));
  if (!instance) return Fail("the plugin does not run at this rate");

  // One float for each control, and one block for the audio, in place. Nothing else is needed.
  const std::uint32_t portCount = lilv_plugin_get_num_ports(plugin);
  std::vector<float> controls(portCount), block(blockFrames);
  lilv_plugin_get_port_ranges_float(plugin, nullptr, nullptr, controls.data());
  const Node audio(lilv_new_uri(world.get(), LV2_CORE__AudioPort));
  const Node control(lilv_new_uri(world.get(), LV2_CORE__ControlPort));
  if (lilv_plugin_get_num_ports_of_class(plugin, audio.get(), nullptr) != 2)
    return Fail("the plugin has more than one channel");
  for (std::uint32_t i = 0; i < portCount; ++i) {
    const LilvPort* const port = lilv_plugin_get_port_by_index(plugin, i);
    float* const data = lilv_port_is_a(plugin, port, audio.get())     ? block.data()
                        : lilv_port_is_a(plugin, port, control.get()) ? &controls[i]
                                                                      : nullptr;
    lilv_instance_connect_port(instance.get(), i, data);
  }
  for (int i = 3; i < count; ++i) {
    const std::string wish = arguments[i];
    const auto equals = wish.find('=');
    const Node symbol(lilv_new_string(world.get(), wish.substr(0, equals).c_str()));
    const LilvPort* const port = lilv_plugin_get_port_by_symbol(plugin, symbol.get());
    if (!port || equals == std::string::npos) return Fail("the plugin has no control for " + wish);
    controls[lilv_port_get_index(plugin, port)] = std::strtof(wish.c_str() + equals + 1, nullptr);
  }

  lilv_instance_activate(instance.get());
  while (const std::size_t frames = std::fread(block.data(), sizeof(float), blockFrames, stdin)) {
    lilv_instance_run(instance.get(), static_cast<std::uint32_t>(frames));
    std::fwrite(block.data(), sizeof(float), frames, stdout);
  }
  lilv_instance_deactivate(instance.get());
}
