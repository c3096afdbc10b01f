#include "platform/onnxruntime/parsed_model.h"

#include "platform/utf16.h"

#include <utility>

namespace Orvik::Tesmo::Platform::OnnxRuntime {
namespace {

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

}  // namespace

ParsedModel::ParsedModel(std::shared_ptr<const Engine> usedEngine, const void* bytes,
                         std::size_t size)
    : engine(std::move(usedEngine)) {
  const OrtApi& api = engine->Api();
  engine->Check(api.createSessionFromBytes(engine->Env(), bytes, size, engine->SessionOptions(),
                                           Receive(session, api.releaseSession)));
  inputs =
      ReadFeatures(*engine, session.get(), {api.getInputCount, api.getInputType, api.getInputName});
  outputs = ReadFeatures(*engine, session.get(),
                         {api.getOutputCount, api.getOutputType, api.getOutputName});
  metadata = ReadMetadata(*engine, session.get());
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
