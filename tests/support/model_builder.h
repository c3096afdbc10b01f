#pragma once

// Makes serialized ONNX models (opset 17, IR version 8) for tests, node by node.

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace onnx {
class ModelProto;
}  // namespace onnx

namespace TestSupport {

/// Element types by their ONNX number.
enum class Element : std::int32_t {
  Float = 1,
  UInt8 = 2,
  Int8 = 3,
  UInt16 = 4,
  Int16 = 5,
  Int32 = 6,
  Int64 = 7,
  String = 8,
  Bool = 9,
  Float16 = 10,
  Double = 11,
  UInt32 = 12,
  UInt64 = 13,
};

/// One dimension of a declared shape: a number (taken as it stands, also 0 and negative ones), a
/// symbol, or, by an empty symbol, neither.
struct Dimension {
  Dimension(int fixed) : value(fixed) {}
  Dimension(std::int64_t fixed) : value(fixed) {}
  Dimension(const char* name) : isFixed(false), symbol(name) {}

  bool isFixed = true;
  std::int64_t value = 0;
  std::string symbol;
};
using Dimensions = std::vector<Dimension>;

/// An attribute of a node: its name, and a number, numbers or texts.
struct Attribute {
  std::string name;
  std::variant<std::int64_t, float, std::vector<std::int64_t>, std::vector<float>,
               std::vector<std::string>>
      value;
};

/// What a feature is declared as. A tensor without a shape is not the same as one of the empty
/// shape of a scalar.
enum class Declared { Tensor, TensorWithoutShape, Sequence };

/// Every operation but Build adds to the model and returns the builder itself. Nothing is checked:
/// broken models can be made too. A copy adds to the same model.
class ModelBuilder {
public:
  ModelBuilder();

  ModelBuilder& Input(const std::string& name, Element element, const Dimensions& shape,
                      Declared as = Declared::Tensor);
  ModelBuilder& Output(const std::string& name, Element element, const Dimensions& shape,
                       Declared as = Declared::Tensor);

  /// An empty name in `inputs` or `outputs` is an optional one left out. `domain` "" is ONNX's own;
  /// "ai.onnx.ml" (version 2) is declared by its first node.
  ModelBuilder& Node(const std::string& operation, const std::vector<std::string>& inputs,
                     const std::vector<std::string>& outputs,
                     const std::vector<Attribute>& attributes = {}, const std::string& domain = "");

  ModelBuilder& Floats(const std::string& name, const std::vector<std::int64_t>& shape,
                       const std::vector<float>& values);
  /// Floats that lie in the file `location`, after `offset` bytes.
  ModelBuilder& FloatsElsewhere(const std::string& name, const std::vector<std::int64_t>& shape,
                                const std::string& location, std::int64_t offset);
  ModelBuilder& Int64s(const std::string& name, const std::vector<std::int64_t>& shape,
                       const std::vector<std::int64_t>& values);
  ModelBuilder& Strings(const std::string& name, const std::vector<std::int64_t>& shape,
                        const std::vector<std::string>& values);

  /// Keys may repeat; values may hold any bytes.
  ModelBuilder& Metadata(const std::string& key, const std::string& value);
  ModelBuilder& OpsetVersion(std::int64_t version);

  /// The model's bytes.
  std::string Build() const;

private:
  std::shared_ptr<onnx::ModelProto> model;
};

}  // namespace TestSupport
