// The LADSPA library: each model in the folder "kalvrin" beside it, in the forms that its
// description lists.

#include "stream/set_up.h"
#include "wrapper/instance.h"

#include <ladspa.h>

#include <deque>
#include <string>

namespace Orvik::Tesmo::Plugin {
namespace {

LADSPA_PortDescriptor DescriptorOf(const Port& port) {
  return (port.IsAudio() ? LADSPA_PORT_AUDIO : LADSPA_PORT_CONTROL) |
         (port.IsWritten() ? LADSPA_PORT_OUTPUT : LADSPA_PORT_INPUT);
}

LADSPA_PortRangeHint HintOf(const Port& port) {
  if (port.IsAudio()) return {0, 0, 0};
  LADSPA_PortRangeHintDescriptor hints = 0;
  if (port.role == Role::Bypass)
    hints = LADSPA_HINT_TOGGLED | LADSPA_HINT_DEFAULT_0;
  else
    hints = LADSPA_HINT_BOUNDED_BELOW | LADSPA_HINT_BOUNDED_ABOVE;
  if (!port.IsGain() && port.role != Role::Bypass && port.role != Role::Load)
    hints |= LADSPA_HINT_INTEGER;
  if (!port.IsWritten()) hints |= LADSPA_HINT_DEFAULT_0;
  return {hints, port.lowest, port.highest};
}

/// LADSPA wants a number for each plugin below 2^24; hosts of today go by the label.
unsigned long IdOf(const std::string& label) {
  const std::uint32_t hash = HashOf(label);
  return (hash ^ hash >> 24U) & 0xFFFFFFU;
}

struct Plugin {
  explicit Plugin(Form offered);

  Form form;
  std::string label, name;
  std::vector<LADSPA_PortDescriptor> portDescriptors;
  std::vector<const char*> portNames;
  std::vector<LADSPA_PortRangeHint> hints;
  LADSPA_Descriptor descriptor{};
};

Instance& Of(LADSPA_Handle handle) {
  return *static_cast<Instance*>(handle);
}

Plugin::Plugin(Form offered)
    : form(std::move(offered)), label(form.description.symbol + "_" + FormName(form.channelCount)),
      name(form.description.name + " (" + FormName(form.channelCount) + ")") {
  for (const Port& port : form.ports) {
    portDescriptors.push_back(DescriptorOf(port));
    portNames.push_back(port.name.c_str());
    hints.push_back(HintOf(port));
  }
  descriptor.UniqueID = IdOf(label);
  descriptor.Label = label.c_str();
  descriptor.Name = name.c_str();
  descriptor.Maker = "kalvrin";
  descriptor.Copyright = "Apache-2.0; the model has a licence of its own";
  descriptor.Properties = form.description.isAlwaysSpread ? LADSPA_PROPERTY_HARD_RT_CAPABLE : 0;
  descriptor.PortCount = form.ports.size();
  descriptor.PortDescriptors = portDescriptors.data();
  descriptor.PortNames = portNames.data();
  descriptor.PortRangeHints = hints.data();
  descriptor.ImplementationData = this;
  descriptor.instantiate = [](const LADSPA_Descriptor* of, unsigned long rateHz) -> LADSPA_Handle {
    const auto* plugin = static_cast<const Plugin*>(of->ImplementationData);
    return TryMakeInstance(plugin->form, static_cast<double>(rateHz), 0).release();
  };
  descriptor.connect_port = [](LADSPA_Handle handle, unsigned long port, LADSPA_Data* data) {
    Of(handle).Connect(port, data);
  };
  descriptor.activate = [](LADSPA_Handle handle) { Of(handle).Activate(); };
  descriptor.run = [](LADSPA_Handle handle, unsigned long frames) {
    Of(handle).Run(static_cast<std::uint32_t>(frames));
  };
  descriptor.cleanup = [](LADSPA_Handle handle) { delete static_cast<Instance*>(handle); };
}

/// Made at the first call; addresses stay.
const std::deque<Plugin>& Plugins() {
  static const std::deque<Plugin> plugins = [] {
    std::deque<Plugin> made;
    for (Form& form : FindForms(GetLibraryFolder() / "kalvrin", Interface::Ladspa))
      made.emplace_back(std::move(form));
    return made;
  }();
  return plugins;
}

}  // namespace
}  // namespace Orvik::Tesmo::Plugin

extern "C" __attribute__((visibility("default"))) const LADSPA_Descriptor*
ladspa_descriptor(unsigned long index) {
  const auto& plugins = Orvik::Tesmo::Plugin::Plugins();
  return index < plugins.size() ? &plugins[index].descriptor : nullptr;
}
