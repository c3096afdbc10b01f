#pragma once

#include "diagnosis/model_description.h"
#include "diagnosis/model_facts.h"
#include "kalvrin/stream_processor.h"
#include "platform/platform.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace Orvik::Tesmo::Tool {

/// The model of a render. The engine loads it once, whatever the number of streams and files.
class RenderModel {
public:
  /// Only notes the path.
  explicit RenderModel(std::string path) : path(std::move(path)) {}

  /// Reads and loads the model unless that has been done. Refusal where the file or the engine
  /// fails; else what the library refuses the model with.
  void Load();

  /// What messages call it.
  const std::string& Path() const { return path; }
  /// After Load.
  const Diagnosis::ModelFacts& Facts() const { return *facts; }
  /// As far as Load came; null before the bytes were a model.
  const Diagnosis::ModelDescription* Description() const {
    return description ? &*description : nullptr;
  }

  /// After Load: a new stream, all its gains 0. Throws what the library refuses the sizes with.
  std::unique_ptr<StreamProcessor> MakeStream(const Diagnosis::StreamRequest& settled);

private:
  std::string path;
  std::shared_ptr<Platform::Runtime> engine;
  std::shared_ptr<Platform::Model> model;
  std::optional<Diagnosis::ModelDescription> description;
  std::optional<Diagnosis::ModelFacts> facts;
};

}  // namespace Orvik::Tesmo::Tool
