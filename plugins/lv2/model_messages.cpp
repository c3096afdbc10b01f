#include "lv2/model_messages.h"

#include "lv2/uri.h"

#include <lv2/atom/util.h>
#include <lv2/patch/patch.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

namespace Orvik::Tesmo::Plugin {
namespace {

/// How messages to the worker begin. A path with its zero follows `load`; an empty one is no model.
constexpr char load = 'L', onlyFree = 'F';

/// The host's own or malloc's.
void FreePath(char* path, const LV2_Feature* const* features) {
  const auto* feature = FindFeature<LV2_State_Free_Path>(features, LV2_STATE__freePath);
  if (feature)
    feature->free_path(feature->handle, path);
  else
    std::free(path);
}

/// `path` through one of the functions of the host's feature, or as it is where there is none.
std::string Mapped(const std::string& path, const LV2_Feature* const* features,
                   char* (*LV2_State_Map_Path::*function)(LV2_State_Map_Path_Handle, const char*)) {
  const auto* feature = FindFeature<LV2_State_Map_Path>(features, LV2_STATE__mapPath);
  if (!feature) return path;
  char* const mapped = (feature->*function)(feature->handle, path.c_str());
  if (!mapped) return path;
  std::string copy = mapped;
  FreePath(mapped, features);
  return copy;
}

}  // namespace

ModelMessages::Urids::Urids(LV2_URID_Map& map) {
  const std::pair<LV2_URID*, const char*> places[] = {
      {&path, LV2_ATOM__Path},          {&string, LV2_ATOM__String}, {&urid, LV2_ATOM__URID},
      {&object, LV2_ATOM__Object},      {&blank, LV2_ATOM__Blank},   {&get, LV2_PATCH__Get},
      {&set, LV2_PATCH__Set},           {&value, LV2_PATCH__value},  {&model, modelUri},
      {&property, LV2_PATCH__property}, {&status, statusUri}};
  for (const auto& [place, uri] : places)
    *place = map.map(map.handle, uri);
}

ModelMessages::ModelMessages(Instance& instance, StreamWish wish, LV2_URID_Map& map,
                             const LV2_Worker_Schedule* schedule)
    : instance(instance), wish(wish), urids(map), schedule(schedule) {
  lv2_atom_forge_init(&forge, &map);
}

void ModelMessages::Read(const LV2_Atom_Sequence* messages, std::uint32_t blockFrames) {
  if (blockFrames != 0) lastBlockFrames.store(blockFrames, std::memory_order_relaxed);
  if (messages) {
    LV2_ATOM_SEQUENCE_FOREACH(messages, event) {
      if (event->body.type == urids.object || event->body.type == urids.blank)
        ReadObject(reinterpret_cast<const LV2_Atom_Object&>(event->body));
    }
  }
  Send(schedule);
}

void ModelMessages::ReadObject(const LV2_Atom_Object& object) {
  if (object.body.otype == urids.get) hasNews = true;
  if (object.body.otype != urids.set) return;
  const LV2_Atom* property = nullptr;
  const LV2_Atom* value = nullptr;
  lv2_atom_object_get(&object, urids.property, &property, urids.value, &value, 0);
  if (!property || property->type != urids.urid || !value ||
      reinterpret_cast<const LV2_Atom_URID*>(property)->body != urids.model)
    return;
  if (value->type == urids.path || value->type == urids.string)
    AskFor(static_cast<const char*>(LV2_ATOM_BODY_CONST(value)), value->size);
}

/// `size` with the zero at the end. What is no path is left alone.
void ModelMessages::AskFor(const char* wanted, std::uint32_t size) {
  if (size == 0 || size >= sizeof request || wanted[size - 1] != 0) return;
  request[0] = load;
  std::memcpy(request + 1, wanted, size);
  requestSize = 1 + size;
}

/// What the worker has to do; where it takes nothing now, the next call tries again.
void ModelMessages::Send(const LV2_Worker_Schedule* to) {
  if (!to) return;
  const auto isTaken = [to](std::uint32_t size, const char* message) {
    return to->schedule_work(to->handle, size, message) == LV2_WORKER_SUCCESS;
  };
  if (requestSize != 0 && isTaken(requestSize, request)) requestSize = 0;
  if (mustFree && isTaken(1, &onlyFree)) mustFree = false;
}

void ModelMessages::GiveBack(std::unique_ptr<AskedModel> model) {
  if (exchange.GiveBack(std::move(model))) mustFree = true;
}

void ModelMessages::TakeLoaded() {
  std::unique_ptr<AskedModel> asked = exchange.Take();
  if (!asked) return;
  GiveBack(std::exchange(refused, nullptr));
  if (asked->isRefused) {
    refused = std::move(asked);
    hasNews = true;
  } else {
    GiveBack(instance.Stream().ChangeTo(std::move(asked)));
  }
}

bool ModelMessages::WriteProperty(LV2_URID property, LV2_URID type, const std::string& text) {
  LV2_Atom_Forge_Frame frame;
  const auto size = static_cast<std::uint32_t>(text.size());
  return lv2_atom_forge_frame_time(&forge, 0) &&
         lv2_atom_forge_object(&forge, &frame, 0, urids.set) &&
         lv2_atom_forge_key(&forge, urids.property) && lv2_atom_forge_urid(&forge, property) &&
         lv2_atom_forge_key(&forge, urids.value) &&
         lv2_atom_forge_typed_string(&forge, type, text.c_str(), size) &&
         (lv2_atom_forge_pop(&forge, &frame), true);
}

/// Returns whether all that there is to say has found room.
bool ModelMessages::TryWrite(LV2_Atom_Sequence* messages, std::uint32_t size, bool withNews) {
  LV2_Atom_Forge_Frame frame;
  lv2_atom_forge_set_buffer(&forge, reinterpret_cast<std::uint8_t*>(messages), size);
  if (!lv2_atom_forge_sequence_head(&forge, &frame, 0)) return false;
  const AskedModel& heard = instance.Stream().Heard();
  const bool isWritten =
      !withNews || (WriteProperty(urids.model, urids.path, heard.file) &&
                    WriteProperty(urids.status, urids.string, (refused ? *refused : heard).status));
  lv2_atom_forge_pop(&forge, &frame);
  return isWritten;
}

void ModelMessages::Write(LV2_Atom_Sequence* messages) {
  GiveBack(instance.Stream().TakeFormer());
  const AskedModel& heard = instance.Stream().Heard();
  hasNews = hasNews || &heard != lastHeard;
  lastHeard = &heard;
  if (!messages) return;
  const std::uint32_t size = messages->atom.size;
  if (TryWrite(messages, size, hasNews))
    hasNews = false;
  else
    TryWrite(messages, size, false);
}

void ModelMessages::Work(std::uint32_t size, const void* message) {
  exchange.FreeGivenBack();
  const auto* text = static_cast<const char*>(message);
  if (size > 1 && *text == load) Load(std::string(text + 1, size - 2));
}

/// For the audio thread to find; an answer that it has not taken yet is out of date.
void ModelMessages::Load(const std::string& wanted) noexcept {
  try {
    StreamWish now = wish;
    if (now.usualBlockFrames == 0) now.usualBlockFrames = lastBlockFrames;
    auto asked = wanted.empty() ? NoModel() : LoadAnyModel(wanted, now);
    if (asked->isRefused) {
      Say(asked->status.c_str());
    } else {
      const std::lock_guard lock(mutex);
      file = wanted;
    }
    exchange.Offer(std::move(asked));
  } catch (const std::exception& error) {
    Say(error.what());
  }
}

LV2_State_Status ModelMessages::Save(LV2_State_Store_Function store, LV2_State_Handle handle,
                                     const LV2_Feature* const* features) {
  std::string path;
  {
    const std::lock_guard lock(mutex);
    path = file;
  }
  if (path.empty()) return LV2_STATE_SUCCESS;
  path = Mapped(path, features, &LV2_State_Map_Path::abstract_path);
  return store(handle, urids.model, path.c_str(), path.size() + 1, urids.path,
               LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE);
}

LV2_State_Status ModelMessages::Restore(LV2_State_Retrieve_Function retrieve,
                                        LV2_State_Handle handle,
                                        const LV2_Feature* const* features) {
  std::size_t size = 0;
  std::uint32_t type = 0, flags = 0;
  const auto* value = static_cast<const char*>(retrieve(handle, urids.model, &size, &type, &flags));
  std::string path;
  if (value && type == urids.path && size != 0)
    path = Mapped(std::string(value, strnlen(value, size)), features,
                  &LV2_State_Map_Path::absolute_path);
  {
    // a session that is saved again keeps a model that is missing today
    const std::lock_guard lock(mutex);
    if (file.empty()) file = path;
  }
  // with the host's worker audio may go on meanwhile
  const auto* worker = FindFeature<LV2_Worker_Schedule>(features, LV2_WORKER__schedule);
  const std::string message = load + path;
  const auto length = static_cast<std::uint32_t>(message.size() + 1);
  if (!worker ||
      worker->schedule_work(worker->handle, length, message.c_str()) != LV2_WORKER_SUCCESS) {
    exchange.FreeGivenBack();
    Load(path);
  }
  return LV2_STATE_SUCCESS;
}

}  // namespace Orvik::Tesmo::Plugin
