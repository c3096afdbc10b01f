#pragma once

// The part of the engine's C interface that is used here. The interface is a table of function
// pointers to which every release only appends, so an entry is known by its slot and its signature.
// The one exported symbol is OrtGetApiBase.

#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

struct OrtStatus;  ///< null is success; any other must be released
struct OrtEnv;
struct OrtSession;
struct OrtSessionOptions;
struct OrtRunOptions;
struct OrtValue;
struct OrtIoBinding;
struct OrtMemoryInfo;
struct OrtAllocator;
struct OrtTypeInfo;
struct OrtTensorInfo;  ///< element type and shape
struct OrtModelMetadata;
struct OrtPackedWeights;  ///< constants in the order that the operators read them in

/// Version asked for, whatever the engine is: the first that has all entries below. An engine
/// older than this returns no table.
inline constexpr std::uint32_t ortApiVersion = 20;

struct OrtApiBase {
  const void* const* (*getApi)(std::uint32_t version);
  const char* (*getVersionString)();
};
inline constexpr const char* ortEntryName = "OrtGetApiBase";
using OrtEntry = const OrtApiBase*();

enum class OrtTypeKind : int { Tensor = 1, Sequence = 2, Map = 3 };
enum class OrtErrorCode : int {
  InvalidArgument = 2,
  NoSuchFile = 3,
  InvalidProtobuf = 7,
  NotImplemented = 9,
  InvalidGraph = 10,
};

using OrtLogger = void(void* parameter, int severity, const char* category, const char* id,
                       const char* location, const char* message);

/// One entry of the table, callable.
template <class Signature>
class OrtSlot;

template <class Result, class... Arguments>
class OrtSlot<Result(Arguments...)> {
public:
  OrtSlot(const void* const* table, std::size_t slot)
      : function(reinterpret_cast<Result (*)(Arguments...)>(const_cast<void*>(table[slot]))) {}

  Result operator()(Arguments... arguments) const { return function(arguments...); }
  Result (*Pointer() const)(Arguments...) { return function; }

private:
  Result (*function)(Arguments...);
};

/// The table. Text that it takes is zero-terminated UTF-8, paths are in the form of the system; a
/// `T**` receives a new object, which the entry named release... frees (names and keys:
/// allocatorFree).
struct OrtApi {
  explicit OrtApi(const void* const* slots) : table(slots) {}

  const void* const* table;

  OrtSlot<int(const OrtStatus*)> getErrorCode{table, 1};
  OrtSlot<const char*(const OrtStatus*)> getErrorMessage{table, 2};
  OrtSlot<void(OrtStatus*)> releaseStatus{table, 93};

  OrtSlot<OrtStatus*(OrtLogger*, void* parameter, int logLevel, const char* id, OrtEnv**)>
      createEnvWithLogger{table, 4};
  OrtSlot<void(OrtEnv*)> releaseEnv{table, 92};

  OrtSlot<OrtStatus*(OrtSessionOptions**)> createSessionOptions{table, 10};
  OrtSlot<void(OrtSessionOptions*)> releaseSessionOptions{table, 100};
  OrtSlot<OrtStatus*(const OrtSessionOptions*, OrtSessionOptions**)> cloneSessionOptions{table, 12};
  OrtSlot<OrtStatus*(OrtSessionOptions*, const char* key, const char* value)> addConfigEntry{table,
                                                                                             130};
  /// A session made with this writes there what it has made of the model.
  OrtSlot<OrtStatus*(OrtSessionOptions*, const std::filesystem::path::value_type* path)>
      setOptimizedModelPath{table, 11};
  /// The session uses this value for the constant of this name. Both the value and its memory must
  /// outlive the session.
  OrtSlot<OrtStatus*(OrtSessionOptions*, const char* name, const OrtValue*)> addInitializer{table,
                                                                                            150};
  OrtSlot<OrtStatus*(OrtSessionOptions*, int)> setExecutionMode{table, 13};
  OrtSlot<OrtStatus*(OrtSessionOptions*)> enableCpuArena{table, 18};
  OrtSlot<OrtStatus*(OrtSessionOptions*, int)> setLogSeverity{table, 22};
  OrtSlot<OrtStatus*(OrtSessionOptions*, int)> setGraphOptimizationLevel{table, 23};
  OrtSlot<OrtStatus*(OrtSessionOptions*, int)> setIntraOpThreads{table, 24};
  OrtSlot<OrtStatus*(OrtSessionOptions*, int)> setInterOpThreads{table, 25};

  OrtSlot<OrtStatus*(const OrtEnv*, const void* bytes, std::size_t size, const OrtSessionOptions*,
                     OrtSession**)>
      createSessionFromBytes{table, 8};
  /// The container must outlive the session.
  OrtSlot<OrtStatus*(const OrtEnv*, const void* bytes, std::size_t size, const OrtSessionOptions*,
                     OrtPackedWeights*, OrtSession**)>
      createSessionSharingWeights{table, 169};
  OrtSlot<void(OrtSession*)> releaseSession{table, 95};
  OrtSlot<OrtStatus*(OrtPackedWeights**)> createPackedWeights{table, 166};
  OrtSlot<void(OrtPackedWeights*)> releasePackedWeights{table, 167};
  OrtSlot<OrtStatus*(const OrtSession*, std::size_t* count)> getInputCount{table, 30};
  OrtSlot<OrtStatus*(const OrtSession*, std::size_t* count)> getOutputCount{table, 31};
  OrtSlot<OrtStatus*(const OrtSession*, std::size_t index, OrtTypeInfo**)> getInputType{table, 33};
  OrtSlot<OrtStatus*(const OrtSession*, std::size_t index, OrtTypeInfo**)> getOutputType{table, 34};
  OrtSlot<OrtStatus*(const OrtSession*, std::size_t index, OrtAllocator*, char**)> getInputName{
      table, 36};
  OrtSlot<OrtStatus*(const OrtSession*, std::size_t index, OrtAllocator*, char**)> getOutputName{
      table, 37};

  OrtSlot<void(OrtTypeInfo*)> releaseTypeInfo{table, 98};
  OrtSlot<OrtStatus*(const OrtTypeInfo*, int* kind)> getTypeKind{table, 56};
  /// Borrowed from the type info.
  OrtSlot<OrtStatus*(const OrtTypeInfo*, const OrtTensorInfo**)> castToTensorInfo{table, 55};
  OrtSlot<OrtStatus*(const OrtTensorInfo*, int* element)> getElementType{table, 60};
  OrtSlot<OrtStatus*(const OrtTensorInfo*, std::size_t* rank)> getRank{table, 61};
  OrtSlot<OrtStatus*(const OrtTensorInfo*, std::int64_t*, std::size_t rank)> getDimensions{table,
                                                                                           62};

  OrtSlot<OrtStatus*(const OrtSession*, OrtModelMetadata**)> getModelMetadata{table, 111};
  OrtSlot<void(OrtModelMetadata*)> releaseModelMetadata{table, 118};
  /// A null list when there are none.
  OrtSlot<OrtStatus*(const OrtModelMetadata*, OrtAllocator*, char*** keys, std::int64_t* count)>
      getMetadataKeys{table, 123};
  OrtSlot<OrtStatus*(const OrtModelMetadata*, OrtAllocator*, const char* key, char** value)>
      lookUpMetadata{table, 116};

  /// The default allocator belongs to the engine.
  OrtSlot<OrtStatus*(OrtAllocator**)> getDefaultAllocator{table, 78};
  OrtSlot<OrtStatus*(OrtAllocator*, void*)> allocatorFree{table, 76};
  OrtSlot<OrtStatus*(int allocatorType, int memoryType, OrtMemoryInfo**)> createCpuMemoryInfo{table,
                                                                                              69};
  OrtSlot<void(OrtMemoryInfo*)> releaseMemoryInfo{table, 94};

  OrtSlot<OrtStatus*(OrtAllocator*, const std::int64_t* shape, std::size_t rank, int element,
                     OrtValue**)>
      createTensor{table, 48};
  /// The memory stays the caller's and must outlive the value.
  OrtSlot<OrtStatus*(const OrtMemoryInfo*, void* memory, std::size_t bytes,
                     const std::int64_t* shape, std::size_t rank, int element, OrtValue**)>
      createTensorOverMemory{table, 49};
  OrtSlot<void(OrtValue*)> releaseValue{table, 96};
  OrtSlot<OrtStatus*(OrtValue*, const char* text, std::size_t index)> setString{table, 129};
  OrtSlot<OrtStatus*(const OrtValue*, std::size_t index, std::size_t* bytes)> getStringLength{table,
                                                                                              127};
  OrtSlot<OrtStatus*(const OrtValue*, std::size_t bytes, std::size_t index, void* text)> getString{
      table, 128};
  /// Makes a string this long, and returns its address: the text to come may hold zeros.
  OrtSlot<OrtStatus*(OrtValue*, std::size_t index, std::size_t bytes, char** text)> resizeString{
      table, 252};

  OrtSlot<OrtStatus*(OrtSession*, OrtIoBinding**)> createBinding{table, 134};
  OrtSlot<void(OrtIoBinding*)> releaseBinding{table, 135};
  OrtSlot<OrtStatus*(OrtIoBinding*, const char* name, const OrtValue*)> bindInput{table, 136};
  OrtSlot<OrtStatus*(OrtIoBinding*, const char* name, const OrtValue*)> bindOutput{table, 137};
  OrtSlot<OrtStatus*(OrtSession*, const OrtRunOptions*, const OrtIoBinding*)> runWithBinding{table,
                                                                                             133};
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
