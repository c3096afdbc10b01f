#include "adapt/graph_writer.h"

#include <limits>

namespace Orvik::Tesmo::Tool {

GraphWriter::GraphWriter(onnx::GraphProto& graph, int opset)
    : graph(graph), opset(opset), names(std::make_shared<int>(0)) {}

GraphWriter::GraphWriter(onnx::GraphProto& graph, const GraphWriter& outer)
    : graph(graph), opset(outer.opset), names(outer.names) {}

std::string GraphWriter::FreshName() {
  return "adapted/" + std::to_string(++*names);
}

std::string GraphWriter::Identity(const std::string& x) {
  return Result(Node("Identity", {x}));
}

std::string GraphWriter::Transpose(const std::string& x, const std::vector<std::int64_t>& order) {
  onnx::NodeProto& node = Node("Transpose", {x});
  SetInts(node, "perm", order);
  return Result(node);
}

std::string GraphWriter::Unsqueeze(const std::string& x, const std::vector<std::int64_t>& axes) {
  return WithAxes("Unsqueeze", x, axes);
}

std::string GraphWriter::Squeeze(const std::string& x, const std::vector<std::int64_t>& axes) {
  return WithAxes("Squeeze", x, axes);
}

std::string GraphWriter::Concat(const std::vector<std::string>& all, std::int64_t axis) {
  onnx::NodeProto& node = Node("Concat", all);
  SetInt(node, "axis", axis);
  return Result(node);
}

std::string GraphWriter::Take(const std::string& x, std::int64_t axis, std::int64_t index) {
  onnx::NodeProto& node = Node("Gather", {x, Int64s({index}, true)});
  SetInt(node, "axis", axis);
  return Result(node);
}

std::string GraphWriter::DropFirst(const std::string& x, std::int64_t axis, std::int64_t count) {
  return Result(
      Node("Slice", {x, Int64s({count}), Int64s({std::numeric_limits<std::int64_t>::max()}),
                     Int64s({axis})}));
}

void GraphWriter::Alias(const std::string& x, const std::string& name) {
  Node("Identity", {x}).add_output(name);
}

onnx::NodeProto& GraphWriter::Node(const std::string& type,
                                   const std::vector<std::string>& inputs) {
  onnx::NodeProto& node = *graph.add_node();
  node.set_op_type(type);
  for (const std::string& input : inputs)
    node.add_input(input);
  return node;
}

void GraphWriter::SetInt(onnx::NodeProto& node, const char* attribute, std::int64_t value) {
  onnx::AttributeProto& added = *node.add_attribute();
  added.set_name(attribute);
  added.set_type(onnx::AttributeProto::INT);
  added.set_i(value);
}

void GraphWriter::SetInts(onnx::NodeProto& node, const char* attribute,
                          const std::vector<std::int64_t>& values) {
  onnx::AttributeProto& added = *node.add_attribute();
  added.set_name(attribute);
  added.set_type(onnx::AttributeProto::INTS);
  added.mutable_ints()->Assign(values.begin(), values.end());
}

void GraphWriter::Declare(onnx::ValueInfoProto& feature, const std::string& name,
                          std::uint32_t kind) {
  feature.set_name(name);
  feature.mutable_type()->mutable_tensor_type()->set_elem_type(static_cast<std::int32_t>(kind));
}

std::string GraphWriter::Result(onnx::NodeProto& node) {
  node.add_output(FreshName());
  return node.output(0);
}

std::string GraphWriter::Int64s(const std::vector<std::int64_t>& values, bool isScalar) {
  onnx::TensorProto& constant = *graph.add_initializer();
  constant.set_name(FreshName());
  constant.set_data_type(onnx::TensorProto::INT64);
  if (!isScalar) constant.add_dims(static_cast<std::int64_t>(values.size()));
  constant.mutable_int64_data()->Assign(values.begin(), values.end());
  return constant.name();
}

std::string GraphWriter::WithAxes(const char* type, const std::string& x,
                                  const std::vector<std::int64_t>& axes) {
  if (axes.empty()) return x;
  if (opset >= 13) return Result(Node(type, {x, Int64s(axes)}));
  onnx::NodeProto& node = Node(type, {x});
  SetInts(node, "axes", axes);
  return Result(node);
}

}  // namespace Orvik::Tesmo::Tool
