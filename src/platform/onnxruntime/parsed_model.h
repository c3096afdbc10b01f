#pragma once

#include "platform/onnxruntime/engine.h"
#include "platform/onnxruntime/weights.h"
#include "platform/platform.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

/// A declared input or output.
struct Feature {
  std::string engineName;  ///< byte by byte as in the model
  std::u16string name;
  FeatureKind kind = FeatureKind::Other;
  std::uint32_t tensorKind = 0;  ///< of a tensor
  Shape shape;                   ///< of a tensor
};

/// A session of the engine. It has values of its own over the weights of the model, because the
/// engine counts references to the values in every run.
struct EngineSession {
  std::vector<Handle<OrtValue>> weights;
  Handle<OrtSession> session;
};

/// A model as the engine has read it, all that it declares, and what its sessions have in common.
/// What it declares does not change. May be used on several threads at once.
///
/// The engine reads and optimizes the model once. Sessions are made from the optimized form, which
/// they read in place. The weights, and the forms into which the engine packs them, are in memory
/// once. A run only reads all these, takes no lock for them and counts nothing in them.
class ParsedModel {
public:
  /// `data` is read during the call only.
  ParsedModel(std::shared_ptr<const Engine> engine, const void* data, std::size_t size);

  const std::shared_ptr<const Engine>& GetEngine() const { return engine; }
  /// A session for one stream. It must not outlive the model.
  EngineSession OpenSession() const;
  const std::vector<Feature>& Features(Side side) const {
    return side == Side::Input ? inputs : outputs;
  }
  /// Keys are unique.
  const std::vector<std::pair<std::u16string, std::u16string>>& Metadata() const {
    return metadata;
  }

private:
  void ReadDeclarations(const OrtSession* session);
  void Share(const std::string& optimized);
  EngineSession OpenSharing() const;

  std::shared_ptr<const Engine> engine;
  /// Optimized, in the engine's own format; as it was, where the engine refuses to share.
  std::string bytes;
  std::optional<Weights> weights;  ///< none where the engine refuses
  Handle<OrtPackedWeights> packed;
  mutable std::mutex firstLock;
  mutable std::optional<EngineSession> first;  ///< made with the model; for whoever asks first
  std::vector<Feature> inputs, outputs;
  std::vector<std::pair<std::u16string, std::u16string>> metadata;
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
