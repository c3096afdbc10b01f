// The LV2 plugin of one model: the binary stands in a bundle beside it, and offers the forms that
// its description lists. Threads, and what is slow, as LV2's classes of functions have it.

#include "lv2/uri.h"
#include "stream/set_up.h"
#include "wrapper/instance.h"

#include <lv2/buf-size/buf-size.h>
#include <lv2/core/lv2.h>
#include <lv2/options/options.h>
#include <lv2/urid/urid.h>

#include <cstring>
#include <deque>

namespace Orvik::Tesmo::Plugin {
namespace {

template <class Data>
const Data* FindFeature(const LV2_Feature* const* features, const char* uri) {
  for (; features && *features; ++features)
    if (std::strcmp((*features)->URI, uri) == 0) return static_cast<const Data*>((*features)->data);
  return nullptr;
}

/// The host's option of that type and an integer value, 0 where it names none.
std::uint32_t IntegerOption(const LV2_Feature* const* features, const char* uri) {
  const auto* map = FindFeature<LV2_URID_Map>(features, LV2_URID__map);
  const auto* option = FindFeature<LV2_Options_Option>(features, LV2_OPTIONS__options);
  if (!map || !option) return 0;
  const LV2_URID key = map->map(map->handle, uri);
  for (; option->key != 0 || option->value; ++option)
    if (option->key == key && option->size == sizeof(std::int32_t))
      return static_cast<std::uint32_t>(*static_cast<const std::int32_t*>(option->value));
  return 0;
}

std::uint32_t UsualBlockFrames(const LV2_Feature* const* features) {
  const std::uint32_t nominal = IntegerOption(features, LV2_BUF_SIZE__nominalBlockLength);
  return nominal ? nominal : IntegerOption(features, LV2_BUF_SIZE__maxBlockLength);
}

struct Plugin {
  explicit Plugin(Form offered);

  Form form;
  std::string uri;
  LV2_Descriptor descriptor;
};

/// Made at the first call; addresses stay.
const std::deque<Plugin>& Plugins() {
  static const std::deque<Plugin> plugins = [] {
    std::deque<Plugin> made;
    for (Form& form : FindForms(GetLibraryFolder(), Interface::Lv2))
      made.emplace_back(std::move(form));
    return made;
  }();
  return plugins;
}

LV2_Handle Instantiate(const LV2_Descriptor* descriptor, double rateHz, const char*,
                       const LV2_Feature* const* features) {
  for (const Plugin& plugin : Plugins())
    if (&plugin.descriptor == descriptor)
      return TryMakeInstance(plugin.form, rateHz, UsualBlockFrames(features)).release();
  return nullptr;
}

Instance& Of(LV2_Handle handle) {
  return *static_cast<Instance*>(handle);
}

Plugin::Plugin(Form offered)
    : form(std::move(offered)), uri(Lv2Uri(form.description, form.channelCount)),
      descriptor{uri.c_str(),
                 Instantiate,
                 [](LV2_Handle handle, std::uint32_t port, void* data) {
                   Of(handle).Connect(port, static_cast<float*>(data));
                 },
                 [](LV2_Handle handle) { Of(handle).Activate(); },
                 [](LV2_Handle handle, std::uint32_t frames) { Of(handle).Run(frames); },
                 nullptr,
                 [](LV2_Handle handle) { delete static_cast<Instance*>(handle); },
                 nullptr} {}

}  // namespace
}  // namespace Orvik::Tesmo::Plugin

LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(std::uint32_t index) {
  const auto& plugins = Orvik::Tesmo::Plugin::Plugins();
  return index < plugins.size() ? &plugins[index].descriptor : nullptr;
}
