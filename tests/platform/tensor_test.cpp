#include "platform/rig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace {

using namespace TestSupport;

constexpr std::int64_t huge = std::numeric_limits<std::int64_t>::max();

TEST(Tensor, OfEveryKindIsZeroAlignedAndItsOwn) {
  const struct {
    std::uint32_t kind;
    std::size_t bytes;
  } rows[] = {
      {TensorKind::Float, 4},  {TensorKind::UInt8, 1},   {TensorKind::Int8, 1},
      {TensorKind::UInt16, 2}, {TensorKind::Int16, 2},   {TensorKind::Int32, 4},
      {TensorKind::Int64, 8},  {TensorKind::Boolean, 1}, {TensorKind::Float16, 2},
      {TensorKind::Double, 8}, {TensorKind::UInt32, 4},  {TensorKind::UInt64, 8},
  };
  for (const auto& row : rows) {
    for (const Shape& shape : {Shape{}, Shape{7}, Shape{2, 3, 5}}) {
      std::size_t bytes = row.bytes;
      for (const std::int64_t dimension : shape)
        bytes *= static_cast<std::size_t>(dimension);
      const auto dirty = MakeTensor(row.kind, shape);
      std::memset(Elements<char>(*dirty, bytes).data(), 0xFF, bytes);
      const auto tensor = MakeTensor(row.kind, shape);
      const std::span<char> elements = Elements<char>(*tensor, bytes);
      EXPECT_EQ(std::count(elements.begin(), elements.end(), 0), bytes)
          << "kind " << row.kind << " rank " << shape.size();
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(elements.data()) % 64, 0) << "kind " << row.kind;
    }
  }
}

TEST(Tensor, OfStringsHasNoAddressAndOneWithoutElementsIsNull) {
  void* data = nullptr;
  for (const Shape& shape : {Shape{}, Shape{3}, Shape{0}})
    EXPECT_EQ(Hex(MakeTensor(TensorKind::String, shape)->Acquire(data)),
              Hex(ResultCodes::NoInterface));
  data = &data;
  EXPECT_EQ(Hex(MakeTensor(TensorKind::Float, {3, 0, huge})->Acquire(data)), Hex(ResultCodes::Ok));
  EXPECT_EQ(data, nullptr);
}

TEST(Tensor, ThatCannotBeIsRefused) {
  const struct {
    const char* name;
    std::uint32_t kind;
    Shape shape;
    ResultCode code;
  } rows[] = {
      {"undefined", TensorKind::Undefined, {1}, ResultCodes::InvalidArgument},
      {"complex64", TensorKind::Complex64, {1}, ResultCodes::InvalidArgument},
      {"complex128", TensorKind::Complex128, {1}, ResultCodes::InvalidArgument},
      {"beyond the table", 16, {1}, ResultCodes::InvalidArgument},
      {"top bit", 0x80000001, {1}, ResultCodes::InvalidArgument},
      {"negative", TensorKind::Float, {2, -1}, ResultCodes::InvalidArgument},
      {"negative beside zero", TensorKind::Float, {0, -1}, ResultCodes::InvalidArgument},
      {"one dimension too large", TensorKind::UInt8, {huge}, ResultCodes::OutOfMemory},
      {"product is 0 in 64 bits",
       TensorKind::Double,
       {1LL << 32, 1LL << 32},
       ResultCodes::OutOfMemory},
      {"strings", TensorKind::String, {1LL << 58}, ResultCodes::OutOfMemory},
  };
  for (const auto& row : rows) {
    std::shared_ptr<Tensor> tensor;
    EXPECT_EQ(Hex(TheRuntime().CreateTensor(row.kind, row.shape, tensor)), Hex(row.code))
        << row.name;
    EXPECT_EQ(tensor, nullptr) << row.name;
  }
}

}  // namespace
