#include "platform/onnxruntime/parsed_model.h"

#include "platform/utf16.h"
#include "system/system.h"

#include <fstream>
#include <utility>

namespace Orvik::Tesmo::Platform::OnnxRuntime {
namespace {

constexpr int alreadyOptimized = 0;

/// Memory of the engine's default allocator.
class AllocatedByEngine {
public:
  AllocatedByEngine(const Engine& engine, void* memory) : engine(engine), memory(memory) {}
  AllocatedByEngine(const AllocatedByEngine&) = delete;
  AllocatedByEngine& operator=(const AllocatedByEngine&) = delete;
  ~AllocatedByEngine() {
    if (memory) TakeStatus(engine.Api(), engine.Api().allocatorFree(engine.Allocator(), memory));
  }

private:
  const Engine& engine;
  void* memory;
};

/// The entries that read one side of a session.
struct SideEntries {
  OrtSlot<OrtStatus*(const OrtSession*, std::size_t*)> getCount;
  OrtSlot<OrtStatus*(const OrtSession*, std::size_t, OrtTypeInfo**)> getType;
  OrtSlot<OrtStatus*(const OrtSession*, std::size_t, OrtAllocator*, char**)> getName;
};

FeatureKind KindOf(int engineKind) {
  switch (static_cast<OrtTypeKind>(engineKind)) {
  case OrtTypeKind::Tensor:
    return FeatureKind::Tensor;
  case OrtTypeKind::Sequence:
    return FeatureKind::Sequence;
  case OrtTypeKind::Map:
    return FeatureKind::Map;
  }
  return FeatureKind::Other;
}

void ReadType(const Engine& engine, const OrtTypeInfo* type, Feature& feature) {
  const OrtApi& api = engine.Api();
  int kind = 0;
  engine.Check(api.getTypeKind(type, &kind));
  feature.kind = KindOf(kind);
  if (feature.kind != FeatureKind::Tensor) return;

  const OrtTensorInfo* tensor = nullptr;
  engine.Check(api.castToTensorInfo(type, &tensor));
  int element = 0;
  engine.Check(api.getElementType(tensor, &element));
  feature.tensorKind = static_cast<std::uint32_t>(element);
  std::size_t rank = 0;
  engine.Check(api.getRank(tensor, &rank));
  feature.shape.resize(rank);
  engine.Check(api.getDimensions(tensor, feature.shape.data(), rank));
}

std::vector<Feature> ReadFeatures(const Engine& engine, const OrtSession* session,
                                  const SideEntries& entries) {
  std::size_t count = 0;
  engine.Check(entries.getCount(session, &count));
  std::vector<Feature> features(count);
  for (std::size_t i = 0; i < count; ++i) {
    char* name = nullptr;
    engine.Check(entries.getName(session, i, engine.Allocator(), &name));
    const AllocatedByEngine nameMemory(engine, name);
    features[i].engineName = name;
    features[i].name = ToUtf16(name);

    Handle<OrtTypeInfo> type;
    engine.Check(entries.getType(session, i, Receive(type, engine.Api().releaseTypeInfo)));
    ReadType(engine, type.get(), features[i]);
  }
  return features;
}

std::vector<std::pair<std::u16string, std::u16string>> ReadMetadata(const Engine& engine,
                                                                    const OrtSession* session) {
  const OrtApi& api = engine.Api();
  Handle<OrtModelMetadata> metadata;
  engine.Check(api.getModelMetadata(session, Receive(metadata, api.releaseModelMetadata)));
  char** keys = nullptr;
  std::int64_t count = 0;
  engine.Check(api.getMetadataKeys(metadata.get(), engine.Allocator(), &keys, &count));
  const AllocatedByEngine keysMemory(engine, keys);
  std::vector<std::unique_ptr<AllocatedByEngine>> keyMemory;
  for (std::int64_t i = 0; i < count; ++i)
    keyMemory.push_back(std::make_unique<AllocatedByEngine>(engine, keys[i]));

  std::vector<std::pair<std::u16string, std::u16string>> pairs;
  for (std::int64_t i = 0; i < count; ++i) {
    char* value = nullptr;
    engine.Check(api.lookUpMetadata(metadata.get(), engine.Allocator(), keys[i], &value));
    const AllocatedByEngine valueMemory(engine, value);
    pairs.emplace_back(ToUtf16(keys[i]), ToUtf16(value ? value : ""));
  }
  return pairs;
}

/// Empty where the file cannot be read.
std::string ContentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::streamoff size = file.tellg();
  std::string content(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
  file.seekg(0);
  return file.read(content.data(), size) ? content : std::string();
}

Handle<OrtSessionOptions> CloneOptions(const Engine& engine) {
  Handle<OrtSessionOptions> options;
  engine.Check(engine.Api().cloneSessionOptions(
      engine.SessionOptions(), Receive(options, engine.Api().releaseSessionOptions)));
  return options;
}

Handle<OrtSession> OpenWhole(const Engine& engine, std::string_view model,
                             const OrtSessionOptions* options) {
  Handle<OrtSession> session;
  engine.Check(engine.Api().createSessionFromBytes(engine.Env(), model.data(), model.size(),
                                                   options,
                                                   Receive(session, engine.Api().releaseSession)));
  return session;
}

/// Opens a session of `model` that writes what it has made of it. Returns that; nothing where it
/// cannot be had.
std::string Written(const Engine& engine, std::string_view model, OrtSessionOptions* options,
                    Handle<OrtSession>& session) {
  const System::ScratchFile file = System::MakeScratchFile();
  if (!file) return {};
  engine.Check(engine.Api().setOptimizedModelPath(options, file->c_str()));
  session = OpenWhole(engine, model, options);
  return ContentOf(*file);
}

/// A session of the whole model. `optimized` receives the model as the engine has optimized it;
/// nothing where the engine cannot write it.
Handle<OrtSession> OpenAndOptimize(const Engine& engine, std::string_view model,
                                   std::string& optimized) {
  Handle<OrtSession> session;
  try {
    optimized = Written(engine, model, CloneOptions(engine).get(), session);
  } catch (const Failure&) {
    session.reset();  // what is wrong with the model itself is found again below
  }
  return session ? std::move(session) : OpenWhole(engine, model, engine.SessionOptions());
}

}  // namespace

ParsedModel::ParsedModel(std::shared_ptr<const Engine> usedEngine, const void* data,
                         std::size_t size)
    : engine(std::move(usedEngine)) {
  const std::string_view model(static_cast<const char*>(data), size);
  std::string optimized;
  auto whole = OpenAndOptimize(*engine, model, optimized);
  ReadDeclarations(whole.get());
  try {
    Share(optimized);
  } catch (const Failure&) {
    weights.reset();
    bytes = model;
    first.emplace();
    first->session = std::move(whole);
  }
}

void ParsedModel::ReadDeclarations(const OrtSession* session) {
  const OrtApi& api = engine->Api();
  inputs = ReadFeatures(*engine, session, {api.getInputCount, api.getInputType, api.getInputName});
  outputs =
      ReadFeatures(*engine, session, {api.getOutputCount, api.getOutputType, api.getOutputName});
  metadata = ReadMetadata(*engine, session);
}

void ParsedModel::Share(const std::string& optimized) {
  if (optimized.empty()) Refuse(ResultCodes::NotImplemented, "the engine has written no model");
  const OrtApi& api = engine->Api();
  const Handle<OrtSessionOptions> options = CloneOptions(*engine);
  engine->Check(api.setGraphOptimizationLevel(options.get(), alreadyOptimized));
  engine->Check(api.addConfigEntry(options.get(), "session.save_model_format", "ORT"));
  Handle<OrtSession> writer;
  bytes = Written(*engine, optimized, options.get(), writer);
  weights.emplace(optimized);
  engine->Check(api.createPackedWeights(Receive(packed, api.releasePackedWeights)));
  first = OpenSharing();
}

EngineSession ParsedModel::OpenSharing() const {
  const OrtApi& api = engine->Api();
  const Handle<OrtSessionOptions> options = CloneOptions(*engine);
  engine->Check(api.setGraphOptimizationLevel(options.get(), alreadyOptimized));
  for (const char* entry :
       {"session.use_ort_model_bytes_directly", "session.use_ort_model_bytes_for_initializers"})
    engine->Check(api.addConfigEntry(options.get(), entry, "1"));
  EngineSession made;
  for (const Weight& weight : weights->All()) {
    Handle<OrtValue>& value = made.weights.emplace_back();
    engine->Check(api.createTensorOverMemory(engine->CpuMemory(), weight.data, weight.bytes,
                                             weight.shape.data(), weight.shape.size(),
                                             weight.element, Receive(value, api.releaseValue)));
    engine->Check(api.addInitializer(options.get(), weight.name.c_str(), value.get()));
  }
  engine->Check(api.createSessionSharingWeights(engine->Env(), bytes.data(), bytes.size(),
                                                options.get(), packed.get(),
                                                Receive(made.session, api.releaseSession)));
  return made;
}

EngineSession ParsedModel::OpenSession() const {
  {
    const std::lock_guard guard(firstLock);
    if (first) return std::move(*std::exchange(first, std::nullopt));
  }
  if (weights) return OpenSharing();
  return {{}, OpenWhole(*engine, bytes, engine->SessionOptions())};
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
