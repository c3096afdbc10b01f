#include "platform/onnxruntime/tensor_buffer.h"

#include "platform/checked_product.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

namespace Orvik::Tesmo::Platform::OnnxRuntime {
namespace {

constexpr std::size_t alignment = 64;
constexpr std::size_t stringBytes = 32;

/// By kind; 0 for a kind that no tensor can have.
constexpr std::size_t elementBytes[] = {0, 4, 1, 1, 2, 2, 4, 8, stringBytes, 1, 2, 8, 4, 8, 0, 0};

std::size_t ElementBytes(std::uint32_t kind) {
  const std::size_t size = kind < std::size(elementBytes) ? elementBytes[kind] : 0;
  if (size == 0) Refuse(ResultCodes::InvalidArgument, "there is no tensor of this element type");
  return size;
}

std::size_t ElementCount(const Shape& shape, std::size_t elementSize) {
  if (std::ranges::any_of(shape, [](std::int64_t dimension) { return dimension < 0; }))
    Refuse(ResultCodes::InvalidArgument, "a dimension of the tensor is negative");
  const auto count = ProductUpTo((PTRDIFF_MAX - alignment) / elementSize, shape);
  if (!count) Refuse(ResultCodes::OutOfMemory, "the tensor is too large");
  return *count;
}

}  // namespace

TensorBuffer::TensorBuffer(std::shared_ptr<const Engine> usedEngine, std::uint32_t kind,
                           const Shape& shape)
    : engine(std::move(usedEngine)), hasStrings(kind == TensorKind::String),
      count(ElementCount(shape, ElementBytes(kind))), bytes(count * ElementBytes(kind)) {
  if (hasStrings)
    CreateStrings(shape);
  else
    CreateNumbers(kind, shape);
}

/// calloc returns zero pages without touching them, but does not align them to `alignment`.
void TensorBuffer::CreateNumbers(std::uint32_t kind, const Shape& shape) {
  std::size_t room = bytes + alignment;
  memory.reset(std::calloc(room, 1));
  if (!memory) throw std::bad_alloc();
  void* start = memory.get();
  start = std::align(alignment, bytes, start, room);
  engine->Check(engine->Api().createTensorOverMemory(
      engine->CpuMemory(), start, bytes, shape.data(), shape.size(), static_cast<int>(kind),
      Receive(value, engine->Api().releaseValue)));
  if (count != 0) data = start;
}

void TensorBuffer::CreateStrings(const Shape& shape) {
  engine->Check(engine->Api().createTensor(engine->Allocator(), shape.data(), shape.size(),
                                           static_cast<int>(TensorKind::String),
                                           Receive(value, engine->Api().releaseValue)));
  Clear();
}

void TensorBuffer::Clear() {
  if (data) std::memset(data, 0, bytes);
  for (std::size_t i = 0; hasStrings && i < count; ++i)
    engine->Check(engine->Api().setString(value.get(), "", i));
}

void TensorBuffer::CopyFrom(const TensorBuffer& source) {
  if (data) std::memcpy(data, source.data, bytes);
  if (hasStrings) CopyStrings(source);
}

void TensorBuffer::CopyStrings(const TensorBuffer& source) {
  const OrtApi& api = engine->Api();
  for (std::size_t i = 0; i < count; ++i) {
    std::size_t length = 0;
    char* text = nullptr;
    engine->Check(api.getStringLength(source.value.get(), i, &length));
    engine->Check(api.resizeString(value.get(), i, length, &text));
    engine->Check(api.getString(source.value.get(), length, i, text));
  }
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
