#pragma once

#include "wrapper/instance.h"
#include "wrapper/model_exchange.h"

#include <lv2/atom/atom.h>
#include <lv2/atom/forge.h>
#include <lv2/core/lv2.h>
#include <lv2/state/state.h>
#include <lv2/urid/urid.h>
#include <lv2/worker/worker.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <limits.h>
#include <memory>
#include <mutex>
#include <string>

namespace Orvik::Tesmo::Plugin {

/// The host's feature of that name, or null.
template <class Data>
Data* FindFeature(const LV2_Feature* const* features, const char* uri) {
  for (; features && *features; ++features)
    if (std::strcmp((*features)->URI, uri) == 0) return static_cast<Data*>((*features)->data);
  return nullptr;
}

/// The model of an LV2 plugin that takes any: hosts name it in patch:Set messages and keep it with
/// their sessions, the host's worker loads it, and the audio thread changes to it. A model that is
/// refused changes nothing but the status.
///
/// The audio thread neither allocates nor frees: the worker frees what has been faded out.
class ModelMessages {
public:
  /// `schedule` may be null: a host without a worker can only restore. All outlive the object.
  ModelMessages(Instance& instance, StreamWish wish, LV2_URID_Map& map,
                const LV2_Worker_Schedule* schedule);
  ModelMessages(const ModelMessages&) = delete;
  ModelMessages& operator=(const ModelMessages&) = delete;

  // Audio thread:

  /// Before the audio of a call. `messages` may be null.
  void Read(const LV2_Atom_Sequence* messages, std::uint32_t blockFrames);
  /// Takes a model that has been loaded; after Read, and before the host starts.
  void TakeLoaded();
  /// After the audio. `messages` may be null; else its size is that of the host's buffer.
  void Write(LV2_Atom_Sequence* messages);

  /// On the worker's thread: loads the model that the message names, and frees the ones before.
  void Work(std::uint32_t size, const void* message);

  // Any thread but the audio thread:
  LV2_State_Status Save(LV2_State_Store_Function store, LV2_State_Handle handle,
                        const LV2_Feature* const* features);
  LV2_State_Status Restore(LV2_State_Retrieve_Function retrieve, LV2_State_Handle handle,
                           const LV2_Feature* const* features);

private:
  struct Urids {
    explicit Urids(LV2_URID_Map& map);
    LV2_URID path, string, urid, object, blank, get, set, property, value, model, status;
  };

  void ReadObject(const LV2_Atom_Object& object);
  void AskFor(const char* file, std::uint32_t size);
  void Send(const LV2_Worker_Schedule* to);
  void GiveBack(std::unique_ptr<AskedModel> model);
  void Load(const std::string& wanted) noexcept;
  bool TryWrite(LV2_Atom_Sequence* messages, std::uint32_t size, bool withNews);
  bool WriteProperty(LV2_URID property, LV2_URID type, const std::string& text);

  Instance& instance;
  StreamWish wish;
  const Urids urids;
  const LV2_Worker_Schedule* schedule;
  LV2_Atom_Forge forge{};

  std::atomic<std::uint32_t> lastBlockFrames = 0;
  ModelExchange exchange;

  // Of the audio thread:
  char request[1 + PATH_MAX] = {};  // a message that the host's worker has not taken yet
  std::uint32_t requestSize = 0;
  bool mustFree = false;                // the worker does not know yet
  std::unique_ptr<AskedModel> refused;  // the last one asked for, where it is refused
  const AskedModel* lastHeard = nullptr;
  bool hasNews = true;

  std::mutex mutex;  // not for the audio thread
  std::string file;  // what a session keeps
};

}  // namespace Orvik::Tesmo::Plugin
