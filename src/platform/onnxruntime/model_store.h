#pragma once

#include "platform/onnxruntime/parsed_model.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

/// Finds the model that is already in memory: all who load the same bytes share one ParsedModel,
/// which goes with the last of them. May be used on several threads at once; threads that load the
/// same new model wait for the first of them, others do not.
class ModelStore {
public:
  /// Throws what ParsedModel throws; the next call with these bytes tries again.
  std::shared_ptr<const ParsedModel> Load(const std::shared_ptr<const Engine>& engine,
                                          const void* bytes, std::size_t size);

private:
  /// What stands for the bytes of a model: their number, and sums over them.
  using Fingerprint = std::pair<std::size_t, std::array<std::uint64_t, 4>>;
  struct Entry {
    std::mutex loading;
    std::weak_ptr<const ParsedModel> model;  ///< under `lock`
  };

  static Fingerprint FingerprintOf(const void* bytes, std::size_t size);
  std::shared_ptr<Entry> EntryFor(const Fingerprint& fingerprint);

  std::mutex lock;
  std::map<Fingerprint, std::shared_ptr<Entry>> entries;
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
