#pragma once

// A small LV2 host on lilv: control ports by symbol, messages about properties, a worker, state.

#include <lilv/lilv.h>
#include <lv2/atom/forge.h>
#include <lv2/atom/util.h>
#include <lv2/patch/patch.h>
#include <lv2/state/state.h>
#include <lv2/urid/urid.h>
#include <lv2/worker/worker.h>

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace TestSupport {

/// One mono instance. Run is the audio thread's and allocates nothing; all else is not.
class Lv2Host {
public:
  Lv2Host(const std::string& bundle, const std::string& uri, double rateHz,
          std::uint32_t blockFrames)
      : blockFrames(blockFrames), in(blockFrames), out(blockFrames) {
    const std::string folder = bundle + "/";
    LilvNode* const node = lilv_new_file_uri(world, nullptr, folder.c_str());
    lilv_world_load_bundle(world, node);
    lilv_node_free(node);
    LilvNode* const name = lilv_new_uri(world, uri.c_str());
    plugin = lilv_plugins_get_by_uri(lilv_world_get_all_plugins(world), name);
    lilv_node_free(name);
    if (!plugin) throw std::runtime_error("no plugin " + uri + " in " + bundle);
    instance = lilv_plugin_instantiate(plugin, rateHz, features.data());
    if (!instance) throw std::runtime_error("cannot be instantiated");
    const auto* extension = lilv_instance_get_extension_data(instance, LV2_WORKER__interface);
    worker = static_cast<const LV2_Worker_Interface*>(extension);
    lv2_atom_forge_init(&forge, &map);
    ConnectAll();
    Clear();
  }
  ~Lv2Host() {
    lilv_instance_free(instance);
    lilv_world_free(world);
  }
  Lv2Host(const Lv2Host&) = delete;
  Lv2Host& operator=(const Lv2Host&) = delete;

  void Activate() { lilv_instance_activate(instance); }

  /// One block of `level`; returns what comes out.
  const std::vector<float>& Run(float level) {
    std::fill(in.begin(), in.end(), level);
    auto* const messages = reinterpret_cast<LV2_Atom*>(messagesOut.data());
    *messages = {sizeof messagesOut - sizeof(LV2_Atom), 0};
    lilv_instance_run(instance, blockFrames);
    Clear();
    return out;
  }
  /// With the next block.
  void Set(const std::string& property, const std::string& path) {
    LV2_Atom_Forge_Frame sequence, object;
    lv2_atom_forge_set_buffer(&forge, messagesIn.data(), messagesIn.size());
    lv2_atom_forge_sequence_head(&forge, &sequence, 0);
    lv2_atom_forge_frame_time(&forge, 0);
    lv2_atom_forge_object(&forge, &object, 0, Urid(LV2_PATCH__Set));
    lv2_atom_forge_key(&forge, Urid(LV2_PATCH__property));
    lv2_atom_forge_urid(&forge, Urid(property));
    lv2_atom_forge_key(&forge, Urid(LV2_PATCH__value));
    lv2_atom_forge_path(&forge, path.c_str(), static_cast<std::uint32_t>(path.size()));
    lv2_atom_forge_pop(&forge, &object);
    lv2_atom_forge_pop(&forge, &sequence);
  }
  /// What the plugin has said in the last block, by property.
  std::map<std::string, std::string> Said() {
    std::map<std::string, std::string> said;
    const auto* sequence = reinterpret_cast<const LV2_Atom_Sequence*>(messagesOut.data());
    LV2_ATOM_SEQUENCE_FOREACH(sequence, event) {
      const LV2_Atom* property = nullptr;
      const LV2_Atom* value = nullptr;
      lv2_atom_object_get(reinterpret_cast<const LV2_Atom_Object*>(&event->body),
                          Urid(LV2_PATCH__property), &property, Urid(LV2_PATCH__value), &value, 0);
      if (property && value)
        said[uris.at(reinterpret_cast<const LV2_Atom_URID*>(property)->body - 1)] =
            static_cast<const char*>(LV2_ATOM_BODY_CONST(value));
    }
    return said;
  }
  /// The host's worker; returns whether it had something to do.
  bool Work() {
    if (workSize == 0) return false;
    const std::vector<char> message(work.begin(), work.begin() + workSize);
    workSize = 0;
    worker->work(
        instance->lv2_handle,
        [](LV2_Worker_Respond_Handle, std::uint32_t, const void*) { return LV2_WORKER_SUCCESS; },
        nullptr, static_cast<std::uint32_t>(message.size()), message.data());
    return true;
  }
  float& Control(const std::string& symbol) { return controls.at(symbol); }

  void Save(const std::string& folder) {
    LilvState* const state = lilv_state_new_from_instance(
        plugin, instance, &map, folder.c_str(), folder.c_str(), folder.c_str(), folder.c_str(),
        nullptr, nullptr, LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE, nullptr);
    lilv_state_save(world, &map, &unmap, state, nullptr, folder.c_str(), "state.ttl");
    lilv_state_free(state);
  }
  /// With the worker, if wanted, as hosts do it while audio runs.
  void Restore(const std::string& folder, bool withWorker) {
    const std::string file = folder + "/state.ttl";
    LilvState* const state = lilv_state_new_from_file(world, &map, nullptr, file.c_str());
    if (!state) throw std::runtime_error("no state in " + file);
    const LV2_Feature* const some[] = {&scheduleFeature, nullptr};
    lilv_state_restore(state, instance, nullptr, nullptr, 0, withWorker ? some : nullptr);
    lilv_state_free(state);
  }

private:
  LV2_URID Urid(const std::string& uri) {
    for (std::size_t i = 0; i < uris.size(); ++i)
      if (uris[i] == uri) return static_cast<LV2_URID>(i + 1);
    uris.push_back(uri);
    return static_cast<LV2_URID>(uris.size());
  }
  void Clear() {
    auto* const sequence = reinterpret_cast<LV2_Atom_Sequence*>(messagesIn.data());
    sequence->atom = {sizeof(LV2_Atom_Sequence_Body), forge.Sequence};
    sequence->body = {};
  }
  void ConnectAll() {
    LilvNode* const audio = lilv_new_uri(world, LV2_CORE__AudioPort);
    LilvNode* const atom = lilv_new_uri(world, LV2_ATOM__AtomPort);
    LilvNode* const input = lilv_new_uri(world, LV2_CORE__InputPort);
    const std::uint32_t count = lilv_plugin_get_num_ports(plugin);
    std::vector<float> initial(count);
    lilv_plugin_get_port_ranges_float(plugin, nullptr, nullptr, initial.data());
    for (std::uint32_t i = 0; i < count; ++i) {
      const LilvPort* const port = lilv_plugin_get_port_by_index(plugin, i);
      const bool isInput = lilv_port_is_a(plugin, port, input);
      const std::string symbol = lilv_node_as_string(lilv_port_get_symbol(plugin, port));
      float* const control = &(controls[symbol] = initial[i]);
      void* const place = lilv_port_is_a(plugin, port, audio) ? (isInput ? in : out).data()
                          : !lilv_port_is_a(plugin, port, atom)
                              ? control
                              : static_cast<void*>((isInput ? messagesIn : messagesOut).data());
      lilv_instance_connect_port(instance, i, place);
    }
    for (LilvNode* node : {audio, atom, input})
      lilv_node_free(node);
  }

  std::uint32_t blockFrames;
  std::vector<float> in, out;
  std::map<std::string, float> controls;
  alignas(8) std::array<std::uint8_t, 16384> messagesIn{}, messagesOut{};
  std::array<char, 8192> work{};  // the message that the worker has not seen yet
  std::uint32_t workSize = 0;

  std::deque<std::string> uris;
  LV2_URID_Map map = {this, [](LV2_URID_Map_Handle host, const char* uri) {
                        return static_cast<Lv2Host*>(host)->Urid(uri);
                      }};
  LV2_URID_Unmap unmap = {this, [](LV2_URID_Unmap_Handle host, LV2_URID urid) {
                            return static_cast<Lv2Host*>(host)->uris.at(urid - 1).c_str();
                          }};
  LV2_Worker_Schedule schedule = {
      this, [](LV2_Worker_Schedule_Handle handle, std::uint32_t size, const void* data) {
        auto& host = *static_cast<Lv2Host*>(handle);
        if (host.workSize != 0 || size > host.work.size()) return LV2_WORKER_ERR_NO_SPACE;
        std::copy_n(static_cast<const char*>(data), size, host.work.begin());
        host.workSize = size;
        return LV2_WORKER_SUCCESS;
      }};
  LV2_Feature mapFeature = {LV2_URID__map, &map},
              scheduleFeature = {LV2_WORKER__schedule, &schedule};
  std::array<const LV2_Feature*, 3> features = {&mapFeature, &scheduleFeature, nullptr};
  LilvWorld* world = lilv_world_new();
  const LilvPlugin* plugin = nullptr;
  LilvInstance* instance = nullptr;
  const LV2_Worker_Interface* worker = nullptr;
  LV2_Atom_Forge forge{};
};

}  // namespace TestSupport
