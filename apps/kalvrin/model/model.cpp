#include "model/model.h"

#include "diagnosis/refusals.h"
#include "runtime/model_loading.h"
#include "stream/set_up.h"
#include "system/files.h"

#include <cerrno>
#include <sys/stat.h>
#include <system_error>

namespace Orvik::Tesmo::Tool {

std::filesystem::path InstalledFile(const char* name) {
  std::error_code error;
  const auto refuse = [&error](const std::string& path) {
    return Refusal("cannot look for " + path + ": " + error.message());
  };
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) throw refuse("/proc/self/exe");
  const auto own = program.parent_path();
  const std::string installed = KALVRIN_ENGINE_FOLDER;
  for (const std::string& relative :
       {std::string("."), std::string("../lib"), std::string("../lib/kalvrin"), installed,
        installed + "/kalvrin"}) {
    auto path = own / relative / name;
    if (std::filesystem::exists(path, error)) return path;
    if (error) throw refuse(path);
  }
  throw Refusal(std::string(name) + " is neither in " + own.string() +
                " nor in ../lib or ../lib/kalvrin from there");
}

std::shared_ptr<Platform::Runtime> OpenEngine() {
  const std::string folder = InstalledFile("libonnxruntime.so.1").parent_path();
  try {
    return OpenRuntime(folder);
  } catch (...) {
    throw Refusal("the inference engine " + folder +
                  "/libonnxruntime.so.1 cannot be used; version 1.20 or later for this machine is "
                  "needed, and enough memory");
  }
}

ModelFile ReadModelFile(const std::string& path) {
  const InputFile file(path);
  struct stat status {};
  if (fstat(file.Get(), &status) != 0)
    throw Refusal("cannot read " + file.Name() + ": " + SystemErrorText(errno));
  if (status.st_size == 0) throw Refusal(file.Name() + " is empty; a model was expected");
  if (status.st_size > 0xFFFFFFFFLL)
    throw Refusal(file.Name() + " is longer than 4 GiB, the most that a model can have");
  ModelFile model{file.Name(), std::vector<char>(static_cast<std::size_t>(status.st_size))};
  const long count = ReadFully(file.Get(), model.bytes.data(), model.bytes.size());
  if (count < 0) throw Refusal("cannot read " + file.Name() + ": " + SystemErrorText(errno));
  model.bytes.resize(static_cast<std::size_t>(count));
  return model;
}

void LoadedModel::Load() {
  if (facts) return;
  if (!model) return Load(ReadModelFile(path));
  description = DescribeModel(*model);
  facts.emplace(*model);
}

void LoadedModel::Load(const ModelFile& file) {
  path = file.path;
  if (!engine) engine = OpenEngine();
  model = Dnn::LoadLearningModel(*engine, file.bytes.data(), file.bytes.size());
  Load();
}

std::unique_ptr<StreamProcessor> LoadedModel::MakeStream(const StreamRequest& settled) const {
  return AssembleStream(engine, model, settled.sequenceSize, settled.channelCount,
                        settled.blockFrames);
}

Refusal LoadedModel::RefusalFor(const StreamRequest& request) const {
  const auto why = ExplainCurrentException(Description(), request);
  return Refusal(path + " is refused: " + why.reason +
                 (why.found.empty() ? "" : " (" + why.found + ")") + "; " + why.change);
}

}  // namespace Orvik::Tesmo::Tool
