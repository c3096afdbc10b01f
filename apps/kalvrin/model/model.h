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

/// Where a file that is delivered with the tool stands: in the program's own folder, ../lib,
/// ../lib/kalvrin, or the folder of installed libraries and its kalvrin: the first that has it.
/// Refusal where none has.
std::filesystem::path InstalledFile(const char* name);

/// The inference engine, opened from where InstalledFile finds it; also selects the kernels for
/// this processor. It outlives all that is made of it. Refusal where it is missing or does not
/// work.
std::shared_ptr<Platform::Runtime> OpenEngine();

/// The bytes of a serialized model.
struct ModelFile {
  std::string path;
  std::vector<char> bytes;
};

/// Refusal where the file cannot be read, is empty, or is longer than a model can be (4 GiB).
ModelFile ReadModelFile(const std::string& path);

/// A model that the engine loads once, whatever the number of streams and files.
class LoadedModel {
public:
  /// Only notes the path.
  explicit LoadedModel(std::string path) : path(std::move(path)) {}

  /// Reads and loads the model unless that has been done. Refusal where the file or the engine
  /// fails; else what the library refuses the model with.
  void Load();
  /// The same, of bytes that have been read.
  void Load(const ModelFile& file);

  /// What messages call it.
  const std::string& Path() const { return path; }
  /// After Load.
  const ModelFacts& Facts() const { return *facts; }
  /// As far as Load came; null before the bytes were a model.
  const ModelDescription* Description() const { return description ? &*description : nullptr; }

  /// After Load: a new stream, all its gains 0. Throws what the library refuses the sizes with.
  std::unique_ptr<StreamProcessor> MakeStream(const StreamRequest& settled) const;

  /// In a catch block around Load and MakeStream: the failure in one sentence that names the model,
  /// or thrown on where no model causes it.
  Refusal RefusalFor(const StreamRequest& request) const;

private:
  std::string path;
  std::shared_ptr<Platform::Runtime> engine;
  std::shared_ptr<Platform::Model> model;
  std::optional<ModelDescription> description;
  std::optional<ModelFacts> facts;
};

}  // namespace Orvik::Tesmo::Tool
