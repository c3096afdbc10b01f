#pragma once

// The boundary to the inference engine: all that the library's logic knows of it. Two
// implementations: platform/onnxruntime (the real one), and a scripted one in tests/support.
//
// Every operation answers a ResultCode (negative: failed, out-arguments unspecified) and throws
// nothing. Objects are shared by counted reference. All text is UTF-16. All operations may run on
// any thread, one at a time per object; those of a Runtime and a Model may run on several at once.
// Evaluate is the only operation on the audio path: it allocates nothing of the boundary's own.

#include "failure/result_code.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Orvik::Tesmo::Platform {

/// A concrete or declared shape, outermost dimension first. In a declared one a value below 1 is
/// free.
using Shape = std::vector<std::int64_t>;

enum class FeatureKind : std::int32_t { Tensor = 0, Sequence = 1, Map = 2, Image = 3, Other = 4 };

/// Element types by their ONNX number. 0 (undefined) to 15; other numbers may come from a model.
namespace TensorKind {
inline constexpr std::uint32_t Undefined = 0, Float = 1, UInt8 = 2, Int8 = 3, UInt16 = 4, Int16 = 5,
                               Int32 = 6, Int64 = 7, String = 8, Boolean = 9, Float16 = 10,
                               Double = 11, UInt32 = 12, UInt64 = 13, Complex64 = 14,
                               Complex128 = 15;
}

/// One declared input or output of a model.
class FeatureDescriptor {
public:
  virtual ~FeatureDescriptor() = default;
  virtual ResultCode GetName(std::u16string& name) const = 0;
  virtual ResultCode GetKind(FeatureKind& kind) const = 0;
  /// Of a tensor feature only; NoInterface otherwise.
  virtual ResultCode GetTensorKind(std::uint32_t& kind) const = 0;
  /// Of a tensor feature only; NoInterface otherwise. Free dimensions are -1 or 0. An output's
  /// dimension that the model leaves free may be fixed here by what the engine infers from the
  /// graph.
  virtual ResultCode GetShape(Shape& shape) const = 0;
};

class FeatureList {
public:
  virtual ~FeatureList() = default;
  virtual ResultCode GetSize(std::uint32_t& size) const = 0;
  /// OutOfBounds past the end.
  virtual ResultCode GetAt(std::uint32_t index,
                           std::shared_ptr<FeatureDescriptor>& feature) const = 0;
};

/// A walk over the metadata of a model, in an order of the engine's own.
class MetadataIterator {
public:
  virtual ~MetadataIterator() = default;
  virtual ResultCode HasCurrent(bool& has) const = 0;
  /// OutOfBounds at the end.
  virtual ResultCode Current(std::u16string& key, std::u16string& value) const = 0;
  virtual ResultCode MoveNext() = 0;
};

/// The text-to-text metadata of a model. Bytes of a value that are no UTF-8 arrive as U+FFFD.
class MetadataMap {
public:
  virtual ~MetadataMap() = default;
  /// OutOfBounds for a key that is not there; an empty value is a present one.
  virtual ResultCode Lookup(std::u16string_view key, std::u16string& value) const = 0;
  virtual ResultCode First(std::shared_ptr<MetadataIterator>& iterator) const = 0;
};

/// A loaded model.
class Model {
public:
  virtual ~Model() = default;
  virtual ResultCode GetInputFeatures(std::shared_ptr<FeatureList>& features) const = 0;
  virtual ResultCode GetOutputFeatures(std::shared_ptr<FeatureList>& features) const = 0;
  virtual ResultCode GetMetadata(std::shared_ptr<MetadataMap>& metadata) const = 0;
};

/// A dense tensor with storage of its own. It may be bound in one binding at a time.
class Tensor {
public:
  virtual ~Tensor() = default;
  /// Address of the elements, for reading and writing until Release; row-major, no gaps, 64-byte
  /// aligned. Null for a tensor without elements. Not for strings (NoInterface). The values of a
  /// recurrent state are those that the next evaluation reads; their address changes with Evaluate
  /// and Prepare, so neither may run before Release.
  virtual ResultCode Acquire(void*& data) = 0;
  virtual void Release() = 0;
};

enum class DeviceKind : std::int32_t { Default = 0, Cpu = 1 };

class Device {
public:
  virtual ~Device() = default;
};

class SessionOptions {
public:
  virtual ~SessionOptions() = default;
  virtual ResultCode SetBatchSizeOverride(std::uint32_t size) = 0;
  /// Threads for parallel work inside one operator. Both may answer NotImplemented where the engine
  /// cannot be had so; 1 is always served.
  virtual ResultCode SetIntraOpNumThreadsOverride(std::uint32_t threads) = 0;
};

enum class Side : std::int32_t { Input = 0, Output = 1 };

/// Which tensor is the memory of which feature.
class Binding {
public:
  virtual ~Binding() = default;
  /// From the next Prepare on, `tensor` is the memory of the feature called `name` on `side`. A
  /// later Bind of the same name and side replaces the earlier one. InvalidArgument for a name that
  /// the model does not have on that side.
  ///
  /// One tensor bound to an input and to an output is a recurrent state: each evaluation reads the
  /// values that the one before it wrote, and never sees its own.
  virtual ResultCode Bind(Side side, std::u16string_view name,
                          const std::shared_ptr<Tensor>& tensor) = 0;
  /// Brings the present set of bound tensors into force: does everything that a first evaluation
  /// would otherwise do late (allocate, choose, fail on shapes) by evaluating zeros, and leaves all
  /// bound tensors zero (strings empty). On failure the binding is unusable until a Prepare
  /// succeeds. Fails for an unbound input, for tensors of another type or shape than the model has
  /// there, and for one tensor bound to two outputs; an output left unbound is not computed.
  virtual ResultCode Prepare() = 0;
};

/// An evaluation context of one model on one device.
class Session {
public:
  virtual ~Session() = default;
  /// Runs the model once on what the bound tensors hold, on the calling thread, and returns when
  /// it has run. On failure recurrent states keep their values. IllegalMethodCall before Prepare.
  /// `correlationId` names the evaluation where the engine has a use for a name; it has no effect
  /// on the result.
  virtual ResultCode Evaluate(Binding& binding, const char16_t* correlationId) = 0;
};

/// The engine itself: makes every object above.
class Runtime {
public:
  virtual ~Runtime() = default;
  /// Parses `size` bytes at `bytes`, which may go afterwards. Models of equal bytes, and their
  /// sessions, may have in common what none of them writes, such as the weights.
  virtual ResultCode LoadModel(const void* bytes, std::uint32_t size,
                               std::shared_ptr<Model>& model) = 0;
  virtual ResultCode CreateDevice(DeviceKind kind, std::shared_ptr<Device>& device) = 0;
  virtual ResultCode CreateSessionOptions(std::shared_ptr<SessionOptions>& options) = 0;
  virtual ResultCode CreateSession(const std::shared_ptr<Model>& model,
                                   const std::shared_ptr<Device>& device,
                                   const std::shared_ptr<SessionOptions>& options,
                                   std::shared_ptr<Session>& session) = 0;
  virtual ResultCode CreateBinding(const std::shared_ptr<Session>& session,
                                   std::shared_ptr<Binding>& binding) = 0;
  /// A tensor of `kind` (a TensorKind that is neither undefined nor complex) with all elements zero
  /// (strings empty). InvalidArgument for a negative dimension, OutOfMemory where the elements do
  /// not fit into memory.
  virtual ResultCode CreateTensor(std::uint32_t kind, const Shape& shape,
                                  std::shared_ptr<Tensor>& tensor) = 0;
};

}  // namespace Orvik::Tesmo::Platform
