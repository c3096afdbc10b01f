#pragma once

#include "platform/onnxruntime/engine.h"
#include "platform/platform.h"

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

/// The elements of a tensor, row-major without gaps, and the engine's value over them. Numbers lie
/// in memory of our own; strings are the engine's, reached only through its entries.
class TensorBuffer {
public:
  /// All elements zero, strings empty. Fails with InvalidArgument for a kind that has no elements
  /// here or a negative dimension, with OutOfMemory where there is no memory for the shape.
  TensorBuffer(std::shared_ptr<const Engine> engine, std::uint32_t kind, const Shape& shape);
  TensorBuffer(const TensorBuffer&) = delete;
  TensorBuffer& operator=(const TensorBuffer&) = delete;

  OrtValue* Value() const { return value.get(); }
  bool HasStrings() const { return hasStrings; }
  /// 64-byte aligned; null without elements and for strings.
  void* Data() const { return data; }

  void Clear();
  /// `source` has the same kind and shape. Numbers are copied without any allocation; strings make
  /// the engine allocate where one becomes longer than it ever was.
  void CopyFrom(const TensorBuffer& source);

private:
  struct Free {
    void operator()(void* memory) const { std::free(memory); }
  };

  void CreateNumbers(std::uint32_t kind, const Shape& shape);
  void CreateStrings(const Shape& shape);
  void CopyStrings(const TensorBuffer& source);

  std::shared_ptr<const Engine> engine;
  bool hasStrings;
  std::size_t count;
  std::size_t bytes;
  std::unique_ptr<void, Free> memory;
  void* data = nullptr;
  Handle<OrtValue> value;
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
