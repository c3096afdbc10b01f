#pragma once

#include "platform/onnxruntime/engine.h"
#include "platform/platform.h"

#include <memory>
#include <string>
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

/// A model as the engine has read it, and all that it declares. Does not change, so the model, its
/// sessions and its bindings share one.
///
/// In this engine reading a model and making a session of it are one act. So the engine's session
/// is made here, and every Session on the model uses it.
class ParsedModel {
public:
  ParsedModel(std::shared_ptr<const Engine> engine, const void* bytes, std::size_t size);

  const std::shared_ptr<const Engine>& GetEngine() const { return engine; }
  /// The engine allows concurrent runs of one session.
  OrtSession* EngineSession() const { return session.get(); }
  const std::vector<Feature>& Features(Side side) const {
    return side == Side::Input ? inputs : outputs;
  }
  /// Keys are unique.
  const std::vector<std::pair<std::u16string, std::u16string>>& Metadata() const {
    return metadata;
  }

private:
  std::shared_ptr<const Engine> engine;
  Handle<OrtSession> session;
  std::vector<Feature> inputs, outputs;
  std::vector<std::pair<std::u16string, std::u16string>> metadata;
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
