#pragma once

// The model of a run: its file, the inference engine, and streams over it.

#include "command_line/errors.h"
#include "diagnosis/model_description.h"
#include "diagnosis/model_facts.h"
#include "kalvrin/stream_processor.h"
#include "platform/platform.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// The path of a file that is installed with the tool: in the program's own folder, ../lib,
/// ../lib/kalvrin, the folder of installed libraries, or the folder kalvrin in that. Throws Refusal
/// where none has it.
std::filesystem::path InstalledFile(const char* name);

/// The inference engine, opened from where InstalledFile finds it; also selects the kernels for
/// this processor. It must outlive all that is made with it. Throws Refusal where it is missing or
/// does not work.
std::shared_ptr<Platform::Runtime> OpenEngine();

/// The bytes of a serialized model.
struct ModelFile {
  std::string path;
  std::vector<char> bytes;
};

/// Throws Refusal where the file cannot be read, is empty, or is longer than 4 GiB.
ModelFile ReadModelFile(const std::string& path);

/// A model that the engine loads once; all streams over it share it.
class LoadedModel {
public:
  /// Reads nothing yet.
  explicit LoadedModel(std::string path) : path(std::move(path)) {}

  /// Reads and loads the model unless that has been done. Throws Refusal where the file or the
  /// engine fails, else what the library throws for a model that it refuses.
  void Load();
  /// The same for a file that has been read.
  void Load(const ModelFile& file);

  /// The name for messages.
  const std::string& Path() const { return path; }
  /// After Load.
  const ModelFacts& Facts() const { return *facts; }
  /// After Load, also one that threw. Null where the bytes are no model.
  const ModelDescription* Description() const { return description ? &*description : nullptr; }

  /// After Load: a new stream, all its gains 0. Throws what the library throws for sizes that it
  /// refuses.
  std::unique_ptr<StreamProcessor> MakeStream(const StreamRequest& settled) const;

  /// Call it in a catch block around Load and MakeStream. Returns the failure as one sentence that
  /// names the model. A failure that the model does not cause is thrown on.
  Refusal RefusalFor(const StreamRequest& request) const;

private:
  std::string path;
  std::shared_ptr<Platform::Runtime> engine;
  std::shared_ptr<Platform::Model> model;
  std::optional<ModelDescription> description;
  std::optional<ModelFacts> facts;
};

}  // namespace Orvik::Tesmo::Tool
