#include "platform/onnxruntime/weights.h"

#include "platform/onnxruntime/failure.h"

#include <cstdint>
#include <cstring>
#include <map>
#include <new>
#include <optional>
#include <utility>

namespace Orvik::Tesmo::Platform::OnnxRuntime {
namespace {

/// The engine copies smaller constants, and among them are the shapes that it needs while it reads
/// the graph.
constexpr std::size_t leastBytes = 128;

enum class Message { Model, Graph, Node, Attribute, Tensor, Value };

/// Where messages of these kinds stand in one another.
constexpr struct {
  Message outer;
  std::uint64_t field;
  Message inner;
} nesting[] = {{Message::Model, 7, Message::Graph},     {Message::Graph, 1, Message::Node},
               {Message::Graph, 5, Message::Tensor},    {Message::Graph, 11, Message::Value},
               {Message::Node, 5, Message::Attribute},  {Message::Attribute, 6, Message::Graph},
               {Message::Attribute, 11, Message::Graph}};

std::optional<Message> InnerMessage(Message outer, std::uint64_t field) {
  for (const auto& row : nesting)
    if (row.outer == outer && row.field == field) return row.inner;
  return std::nullopt;
}

namespace TensorField {
constexpr std::uint64_t Dimensions = 1, Element = 2, Name = 8, Elements = 9, PlaceKind = 14;
}
constexpr std::uint64_t valueNameField = 1, nodeResultField = 2;

struct Field {
  std::uint64_t number = 0;
  std::uint64_t value = 0;  ///< of a number
  bool hasContent = false;  ///< a message, a text or an array
  std::string_view content;
};

/// A walk over the fields of one message.
class Fields {
public:
  explicit Fields(std::string_view message) : left(message) {}

  bool Next(Field& field) {
    if (left.empty()) return false;
    const std::uint64_t key = Number();
    field = {};
    field.number = key >> 3;
    switch (key & 7) {
    case 0:
      field.value = Number();
      break;
    case 1:
      Take(8);
      break;
    case 2:
      field.hasContent = true;
      field.content = Take(Number());
      break;
    case 5:
      Take(4);
      break;
    default:
      Refuse(ResultCodes::InvalidArgument, "the model's bytes are damaged");
    }
    return true;
  }

  /// Seven bits a byte, the lowest first; the top bit says that more follow.
  std::uint64_t Number() {
    std::uint64_t number = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      const auto byte = static_cast<unsigned char>(Take(1)[0]);
      number |= std::uint64_t{byte & 0x7FU} << shift;
      if (byte < 0x80) return number;
    }
    Refuse(ResultCodes::InvalidArgument, "the model's bytes are damaged");
  }

  bool AtEnd() const { return left.empty(); }

private:
  std::string_view Take(std::uint64_t bytes) {
    if (bytes > left.size()) Refuse(ResultCodes::InvalidArgument, "the model's bytes are damaged");
    const std::string_view taken = left.substr(0, bytes);
    left.remove_prefix(bytes);
    return taken;
  }

  std::string_view left;
};

/// A tensor as it stands in the model. `weight.data` is not set yet.
struct StoredTensor {
  Weight weight;
  std::string_view elements;
  bool isElsewhere = false;
};

StoredTensor ReadTensor(std::string_view message) {
  StoredTensor tensor;
  Field field;
  for (Fields fields(message); fields.Next(field);) {
    switch (field.number) {
    case TensorField::Dimensions:
      if (field.hasContent)
        for (Fields dimensions(field.content); !dimensions.AtEnd();)
          tensor.weight.shape.push_back(static_cast<std::int64_t>(dimensions.Number()));
      else
        tensor.weight.shape.push_back(static_cast<std::int64_t>(field.value));
      break;
    case TensorField::Element:
      tensor.weight.element = static_cast<int>(field.value);
      break;
    case TensorField::Name:
      tensor.weight.name = field.content;
      break;
    case TensorField::Elements:
      tensor.elements = field.content;
      tensor.weight.bytes = field.content.size();
      break;
    case TensorField::PlaceKind:
      tensor.isElsewhere = field.value != 0;
      break;
    default:
      break;
    }
  }
  return tensor;
}

/// The tensors of all graphs, and how often each name stands for a constant, an input of a graph or
/// a result, over all of them.
struct Found {
  std::vector<StoredTensor> tensors;
  std::map<std::string, int, std::less<>> uses;
};

void Search(std::string_view message, Message kind, Found& found) {
  if (kind == Message::Tensor) {
    found.tensors.push_back(ReadTensor(message));
    ++found.uses[found.tensors.back().weight.name];
    return;
  }
  Field field;
  for (Fields fields(message); fields.Next(field);) {
    if ((kind == Message::Value && field.number == valueNameField) ||
        (kind == Message::Node && field.number == nodeResultField))
      ++found.uses[std::string(field.content)];
    else if (const auto inner = InnerMessage(kind, field.number))
      Search(field.content, *inner, found);
  }
}

std::size_t Aligned(std::size_t bytes) {
  return (bytes + weightAlignment - 1) / weightAlignment * weightAlignment;
}

}  // namespace

Weights::Weights(std::string_view model) {
  Found found;
  Search(model, Message::Model, found);
  std::erase_if(found.tensors, [&](const StoredTensor& tensor) {
    return tensor.weight.bytes < leastBytes || tensor.isElsewhere ||
           found.uses[tensor.weight.name] != 1;
  });
  std::size_t total = 0;
  for (const StoredTensor& tensor : found.tensors)
    total += Aligned(tensor.weight.bytes);
  if (total == 0) return;
  memory.reset(static_cast<char*>(::operator new (total, std::align_val_t{weightAlignment})));
  char* place = memory.get();
  for (StoredTensor& tensor : found.tensors) {
    std::memcpy(place, tensor.elements.data(), tensor.weight.bytes);
    tensor.weight.data = place;
    place += Aligned(tensor.weight.bytes);
    weights.push_back(std::move(tensor.weight));
  }
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
