#include "adapt/source_model.h"

#include "command_line/errors.h"
#include "diagnosis/model_description.h"

#include <algorithm>
#include <climits>
#include <set>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr int leastOpset = 11, mostOpset = 21;

SourceTensor ReadTensor(const onnx::ValueInfoProto& feature) {
  if (!feature.type().has_tensor_type())
    throw Refusal("'" + feature.name() + "' is no tensor, and only tensors can be adapted");
  const auto& type = feature.type().tensor_type();
  SourceTensor tensor;
  tensor.name = feature.name();
  tensor.kind = static_cast<std::uint32_t>(type.elem_type());
  tensor.hasShape = type.has_shape();
  for (const auto& dimension : type.shape().dim())
    tensor.shape.push_back(
        {dimension.has_dim_value() ? std::max<std::int64_t>(dimension.dim_value(), 0) : 0,
         dimension.dim_param()});
  return tensor;
}

int OwnOpset(const onnx::ModelProto& model) {
  for (const auto& imported : model.opset_import())
    if (imported.domain().empty() || imported.domain() == "ai.onnx")
      return static_cast<int>(std::clamp<std::int64_t>(imported.version(), 0, INT_MAX));
  return 0;
}

}  // namespace

SourceModel ReadSourceModel(const ModelFile& file) {
  SourceModel source;
  source.path = file.path;
  if (file.bytes.size() > INT_MAX ||
      !source.proto.ParseFromArray(file.bytes.data(), static_cast<int>(file.bytes.size())) ||
      !source.proto.has_graph())
    throw Refusal(file.path + " is no ONNX model");
  source.opset = OwnOpset(source.proto);
  if (source.opset < leastOpset || source.opset > mostOpset)
    throw Refusal("the model has opset " + std::to_string(source.opset) + "; 11 to 21 can be " +
                  "adapted. Export it again, with opset 17");
  const onnx::GraphProto& graph = source.proto.graph();
  std::set<std::string> given;
  for (const auto& weights : graph.initializer()) {
    if (weights.data_location() == onnx::TensorProto::EXTERNAL)
      throw Refusal("the weights '" + weights.name() +
                    "' lie in another file. Save the model whole (in Python: "
                    "onnx.save(onnx.load(\"model.onnx\"), \"whole.onnx\"))");
    given.insert(weights.name());
  }
  for (const auto& input : graph.input())
    if (!given.contains(input.name())) source.inputs.push_back(ReadTensor(input));
  for (const auto& output : graph.output())
    source.outputs.push_back(ReadTensor(output));
  return source;
}

std::string SourceTensorText(const SourceTensor& tensor) {
  FeatureDescription feature;
  feature.kind = Platform::FeatureKind::Tensor;
  feature.tensorKind = tensor.kind;
  for (const SourceDimension& dimension : tensor.shape)
    feature.shape.push_back(dimension.size);
  return "'" + tensor.name + "' " + TypeText(feature) + " " +
         (tensor.hasShape ? ShapeText(feature.shape) : "without a shape");
}

}  // namespace Orvik::Tesmo::Tool
