// The LV2 plugin of one model: the binary stands in a bundle beside it, and offers the forms that
// its description lists. Threads, and what is slow, as LV2's classes of functions have it.

#include "lv2/model_messages.h"
#include "lv2/uri.h"
#include "stream/set_up.h"
#include "wrapper/instance.h"

#include <lv2/buf-size/buf-size.h>
#include <lv2/core/lv2.h>
#include <lv2/options/options.h>
#include <lv2/urid/urid.h>

#include <deque>
#include <exception>
#include <optional>

namespace Orvik::Tesmo::Plugin {
namespace {

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

/// What a host holds.
struct Hosted {
  std::unique_ptr<Instance> instance;
  // where the plugin takes any model:
  std::optional<ModelMessages> messages;
  const LV2_Atom_Sequence* messagesIn = nullptr;
  LV2_Atom_Sequence* messagesOut = nullptr;
};

Hosted& Of(LV2_Handle handle) {
  return *static_cast<Hosted*>(handle);
}

std::unique_ptr<Hosted> TryMake(const Form& form, double rateHz,
                                const LV2_Feature* const* features) noexcept {
  try {
    auto hosted = std::make_unique<Hosted>();
    const std::uint32_t usual = UsualBlockFrames(features);
    const bool takesAny = form.description.takesAnyModel;
    constexpr std::uint32_t longestBlock = 8192;
    hosted->instance = TryMakeInstance(form, rateHz, usual, takesAny ? longestBlock : 0);
    if (!hosted->instance || !takesAny) return hosted->instance ? std::move(hosted) : nullptr;
    auto* const map = FindFeature<LV2_URID_Map>(features, LV2_URID__map);
    if (!map) return nullptr;  // a host that ignores what the plugin requires
    hosted->messages.emplace(*hosted->instance,
                             StreamWish{.hostRateHz = rateHz,
                                        .channelCount = form.channelCount,
                                        .usualBlockFrames = usual,
                                        .sequenceSize = form.description.sequenceSize,
                                        .classCount = form.description.classes.size()},
                             *map,
                             FindFeature<LV2_Worker_Schedule>(features, LV2_WORKER__schedule));
    return hosted;
  } catch (const std::exception& error) {
    Say(error.what());
    return nullptr;
  }
}

LV2_Handle Instantiate(const LV2_Descriptor* descriptor, double rateHz, const char*,
                       const LV2_Feature* const* features) {
  for (const Plugin& plugin : Plugins())
    if (&plugin.descriptor == descriptor) return TryMake(plugin.form, rateHz, features).release();
  return nullptr;
}

void Connect(LV2_Handle handle, std::uint32_t port, void* data) {
  Hosted& hosted = Of(handle);
  switch (hosted.instance->RoleOf(port)) {
  case Role::MessagesIn:
    hosted.messagesIn = static_cast<const LV2_Atom_Sequence*>(data);
    break;
  case Role::MessagesOut:
    hosted.messagesOut = static_cast<LV2_Atom_Sequence*>(data);
    break;
  default:
    hosted.instance->Connect(port, static_cast<float*>(data));
  }
}

void Activate(LV2_Handle handle) {
  Hosted& hosted = Of(handle);
  if (hosted.messages) hosted.messages->TakeLoaded();
  hosted.instance->Activate();
}

void Run(LV2_Handle handle, std::uint32_t frames) {
  Hosted& hosted = Of(handle);
  if (!hosted.messages) return hosted.instance->Run(frames);
  hosted.messages->Read(hosted.messagesIn, frames);
  hosted.messages->TakeLoaded();
  hosted.instance->Run(frames);
  hosted.messages->Write(hosted.messagesOut);
}

/// Of plugins that take any model.
const void* Extension(const char* uri) {
  static const LV2_Worker_Interface worker = {
      [](LV2_Handle handle, LV2_Worker_Respond_Function, LV2_Worker_Respond_Handle,
         std::uint32_t size, const void* data) {
        Of(handle).messages->Work(size, data);
        return LV2_WORKER_SUCCESS;
      },
      // the audio thread finds what was loaded by itself
      [](LV2_Handle, std::uint32_t, const void*) { return LV2_WORKER_SUCCESS; }, nullptr};
  static const LV2_State_Interface state = {
      [](LV2_Handle handle, LV2_State_Store_Function store, LV2_State_Handle to, std::uint32_t,
         const LV2_Feature* const* features) {
        return Of(handle).messages->Save(store, to, features);
      },
      [](LV2_Handle handle, LV2_State_Retrieve_Function retrieve, LV2_State_Handle from,
         std::uint32_t, const LV2_Feature* const* features) {
        return Of(handle).messages->Restore(retrieve, from, features);
      }};
  if (std::strcmp(uri, LV2_WORKER__interface) == 0) return &worker;
  if (std::strcmp(uri, LV2_STATE__interface) == 0) return &state;
  return nullptr;
}

Plugin::Plugin(Form offered)
    : form(std::move(offered)), uri(Lv2Uri(form.description, form.channelCount)),
      descriptor{uri.c_str(),
                 Instantiate,
                 Connect,
                 Activate,
                 Run,
                 nullptr,
                 [](LV2_Handle handle) { delete static_cast<Hosted*>(handle); },
                 form.description.takesAnyModel ? Extension : nullptr} {}

}  // namespace
}  // namespace Orvik::Tesmo::Plugin

LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(std::uint32_t index) {
  const auto& plugins = Orvik::Tesmo::Plugin::Plugins();
  return index < plugins.size() ? &plugins[index].descriptor : nullptr;
}
