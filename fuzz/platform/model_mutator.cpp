// Changes a model as a model: one field of it, so that what comes out is read as one most of the
// time.

#include <google/protobuf/message.h>
#include <limits>
#include <onnx/onnx_pb.h>
#include <random>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

constexpr const char* operators[] = {
    "Add",     "Cast",      "Concat",  "Conv",   "CumSum", "Div",       "Expand",    "Gather",
    "Gemm",    "GRU",       "If",      "Loop",   "LSTM",   "MatMul",    "Mod",       "OneHot",
    "Pad",     "Range",     "Reshape", "Resize", "Scan",   "ScatterND", "Slice",     "Split",
    "Squeeze", "ReduceMax", "Tanh",    "Tile",   "TopK",   "Transpose", "Unsqueeze", "Where"};
constexpr std::int64_t numbers[] = {0,
                                    1,
                                    2,
                                    3,
                                    4,
                                    7,
                                    8,
                                    16,
                                    -1,
                                    -2,
                                    1 << 20,
                                    0x7FFFFFFF,
                                    std::numeric_limits<std::int64_t>::max(),
                                    std::numeric_limits<std::int64_t>::min()};

/// One value of a model: a field, and its place where that is repeated.
struct Value {
  Message* owner;
  const FieldDescriptor* field;
  int index;  ///< -1: not repeated
};

void Collect(Message& message, std::vector<Value>& values) {
  const auto* const reflection = message.GetReflection();
  std::vector<const FieldDescriptor*> fields;
  reflection->ListFields(message, &fields);
  for (const FieldDescriptor* field : fields) {
    const int count = field->is_repeated() ? reflection->FieldSize(message, field) : 1;
    for (int i = 0; i < count; ++i) {
      values.push_back({&message, field, field->is_repeated() ? i : -1});
      if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE) continue;
      Collect(field->is_repeated() ? *reflection->MutableRepeatedMessage(&message, field, i)
                                   : *reflection->MutableMessage(&message, field),
              values);
    }
  }
}

class Mutator {
public:
  Mutator(onnx::ModelProto& model, unsigned seed) : random(seed) { Collect(model, values); }

  void Change() {
    if (values.empty()) return;
    const Value& value = Any();
    if (value.index >= 0 && random() % 8 == 0) return Remove(value);
    switch (value.field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_STRING:
      return SetText(value, random() % 2 ? Pick(operators) : AnyText());
    case FieldDescriptor::CPPTYPE_INT64:
      return SetNumber(value, &Reflection::SetInt64, &Reflection::SetRepeatedInt64);
    case FieldDescriptor::CPPTYPE_INT32:
      return SetNumber(value, &Reflection::SetInt32, &Reflection::SetRepeatedInt32);
    case FieldDescriptor::CPPTYPE_FLOAT:
      return SetNumber(value, &Reflection::SetFloat, &Reflection::SetRepeatedFloat);
    case FieldDescriptor::CPPTYPE_ENUM:
      return SetNumber(value, &Reflection::SetEnumValue, &Reflection::SetRepeatedEnumValue);
    case FieldDescriptor::CPPTYPE_MESSAGE:
      return CopyOver(value);
    default:
      return;
    }
  }

private:
  using Reflection = google::protobuf::Reflection;

  const Value& Any() { return values[random() % values.size()]; }
  template <class T, std::size_t N>
  const T& Pick(const T (&all)[N]) {
    return all[random() % N];
  }

  /// Another text of the model, so that names meet; its bytes changed now and then.
  std::string AnyText() {
    std::string text;
    for (int tries = 0; tries < 20; ++tries) {
      const Value& value = Any();
      if (value.field->cpp_type() != FieldDescriptor::CPPTYPE_STRING) continue;
      const auto* const reflection = value.owner->GetReflection();
      if (value.index < 0)
        text = reflection->GetString(*value.owner, value.field);
      else if (value.index < reflection->FieldSize(*value.owner, value.field))
        text = reflection->GetRepeatedString(*value.owner, value.field, value.index);
      break;
    }
    if (random() % 3 != 0) return text;
    const std::size_t size = text.size();
    text.resize(size + 16);
    text.resize(LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(text.data()), size, text.size()));
    return text;
  }

  void SetText(const Value& value, const std::string& text) {
    const auto* const reflection = value.owner->GetReflection();
    if (value.index < 0)
      reflection->SetString(value.owner, value.field, text);
    else
      reflection->SetRepeatedString(value.owner, value.field, value.index, text);
  }

  template <class T>
  void SetNumber(const Value& value,
                 void (Reflection::*set)(Message*, const FieldDescriptor*, T) const,
                 void (Reflection::*setRepeated)(Message*, const FieldDescriptor*, int, T) const) {
    const auto number = static_cast<T>(random() % 4 ? Pick(numbers) : random() % 32);
    const auto* const reflection = value.owner->GetReflection();
    if (value.index < 0)
      (reflection->*set)(value.owner, value.field, number);
    else
      (reflection->*setRepeated)(value.owner, value.field, value.index, number);
  }

  void Remove(const Value& value) {
    const auto* const reflection = value.owner->GetReflection();
    reflection->SwapElements(value.owner, value.field, value.index,
                             reflection->FieldSize(*value.owner, value.field) - 1);
    reflection->RemoveLast(value.owner, value.field);
  }

  /// Once more, or in the place of another of its kind.
  void CopyOver(const Value& value) {
    if (value.index < 0) return;
    const auto* const reflection = value.owner->GetReflection();
    const Message& original =
        reflection->GetRepeatedMessage(*value.owner, value.field, value.index);
    for (int tries = 0; tries < 20; ++tries) {
      const Value& other = Any();
      if (other.field != value.field || other.owner == value.owner) continue;
      other.owner->GetReflection()->AddMessage(other.owner, other.field)->CopyFrom(original);
      return;
    }
    auto* const copy = original.New();
    copy->CopyFrom(original);
    reflection->AddAllocatedMessage(value.owner, value.field, copy);
  }

  std::mt19937 random;
  std::vector<Value> values;
};

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned seed) {
  onnx::ModelProto model;
  if (seed % 8 == 0 || !model.ParseFromArray(data, static_cast<int>(size)))
    return LLVMFuzzerMutate(data, size, maxSize);
  for (unsigned i = 0; i <= seed / 8 % 3; ++i)
    Mutator(model, seed + i).Change();
  const std::string bytes = model.SerializePartialAsString();
  if (bytes.size() > maxSize) return size;
  bytes.copy(reinterpret_cast<char*>(data), bytes.size());
  return bytes.size();
}
