#include "adapt/graph_writer.h"

#include "platform/platform.h"

#include <algorithm>
#include <limits>

namespace Orvik::Tesmo::Tool {
namespace {

std::string Without(std::string axes, char letter) {
  std::erase(axes, letter);
  return axes;
}

std::string Permute(GraphWriter& graph, const std::string& x, const std::string& from,
                    const std::string& to) {
  if (from == to) return x;
  std::vector<std::int64_t> order;
  for (const char letter : to)
    order.push_back(static_cast<std::int64_t>(from.find(letter)));
  return graph.Transpose(x, order);
}

/// The letters of `layout` that `axes` has too, and the places of the others.
struct Split {
  std::string kept;
  std::vector<std::int64_t> others;
};
Split SplitLayout(const Layout& layout, const std::string& axes) {
  Split split;
  for (std::size_t i = 0; i < layout.size(); ++i) {
    if (Has(axes, layout[i]))
      split.kept += layout[i];
    else
      split.others.push_back(static_cast<std::int64_t>(i));
  }
  return split;
}

std::string IntoLayout(GraphWriter& graph, const std::string& x, const std::string& axes,
                       const Layout& layout) {
  const Split split = SplitLayout(layout, axes);
  return graph.Unsqueeze(Permute(graph, x, axes, split.kept), split.others);
}

/// To "K" + axes.
std::string OutOfLayout(GraphWriter& graph, const std::string& y, const Layout& layout,
                        const std::string& axes) {
  const Split split = SplitLayout(layout, "K" + axes);
  const std::string squeezed = graph.Squeeze(y, split.others);
  if (Has(layout, 'K')) return Permute(graph, squeezed, split.kept, "K" + axes);
  return graph.Unsqueeze(Permute(graph, squeezed, split.kept, axes), {0});
}

void AddPrefix(std::string& name, const std::string& prefix) {
  if (!name.empty()) name.insert(0, prefix);
}

void AddPrefixes(onnx::GraphProto& graph, const std::string& prefix) {
  for (auto& node : *graph.mutable_node()) {
    AddPrefix(*node.mutable_name(), prefix);
    for (std::string& name : *node.mutable_input())
      AddPrefix(name, prefix);
    for (std::string& name : *node.mutable_output())
      AddPrefix(name, prefix);
    for (auto& attribute : *node.mutable_attribute()) {
      if (attribute.has_g()) AddPrefixes(*attribute.mutable_g(), prefix);
      for (auto& inner : *attribute.mutable_graphs())
        AddPrefixes(inner, prefix);
    }
  }
  for (auto* features : {graph.mutable_input(), graph.mutable_output()})
    for (auto& feature : *features)
      AddPrefix(*feature.mutable_name(), prefix);
  for (auto& weights : *graph.mutable_initializer())
    AddPrefix(*weights.mutable_name(), prefix);
  for (auto& weights : *graph.mutable_sparse_initializer())
    AddPrefix(*weights.mutable_values()->mutable_name(), prefix);
  // They name values and sizes that no longer hold.
  graph.clear_value_info();
  graph.clear_quantization_annotation();
}

void FeedAudio(GraphWriter& graph, const std::string& prefix, const AudioInput& input,
               const FedAudio& fed) {
  if (input.tensors.size() == 1) {
    graph.Alias(IntoLayout(graph, fed.audio, fed.axes, input.layout),
                prefix + input.tensors[0].name);
    return;
  }
  for (std::size_t part = 0; part < 2; ++part) {
    const std::string one = graph.Take(fed.audio, static_cast<std::int64_t>(fed.axes.size()) - 1,
                                       static_cast<std::int64_t>(part));
    graph.Alias(IntoLayout(graph, one, Without(fed.axes, 'C'), input.layout),
                prefix + input.tensors[part].name);
  }
}

std::string CollectAudio(GraphWriter& graph, const std::string& prefix, const Roles& roles,
                         const std::string& axes) {
  std::vector<std::string> classes, parts;
  const bool areApart = Has(axes, 'C') && !Has(roles.outputLayout, 'C');
  for (const SourceTensor& output : roles.outputs) {
    const std::string one = OutOfLayout(graph, prefix + output.name, roles.outputLayout,
                                        areApart ? Without(axes, 'C') : axes);
    if (!areApart) {
      classes.push_back(one);
      continue;
    }
    const auto last = static_cast<std::int64_t>(axes.size());
    parts.push_back(graph.Unsqueeze(one, {last}));
    if (parts.size() < 2) continue;
    classes.push_back(graph.Concat(parts, last));
    parts.clear();
  }
  return classes.size() == 1 ? classes[0] : graph.Concat(classes, 0);
}

}  // namespace

GraphWriter::GraphWriter(onnx::GraphProto& graph, int opset, std::string prefix)
    : graph(graph), opset(opset), prefix(std::move(prefix)), names(std::make_shared<int>(0)) {}

GraphWriter::GraphWriter(onnx::GraphProto& graph, const GraphWriter& outer)
    : graph(graph), opset(outer.opset), prefix(outer.prefix), names(outer.names) {}

std::string GraphWriter::FreshName() {
  return prefix + std::to_string(++*names);
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

std::string GraphWriter::Reshape(const std::string& x, const std::vector<std::int64_t>& shape) {
  return Apply("Reshape", {x, Int64s(shape)});
}

std::string GraphWriter::Apply(const std::string& type, const std::vector<std::string>& inputs) {
  return Result(Node(type, inputs));
}

std::string GraphWriter::Floats(const std::vector<double>& values,
                                const std::vector<std::int64_t>& shape) {
  onnx::TensorProto& constant = *graph.add_initializer();
  constant.set_name(FreshName());
  constant.set_data_type(onnx::TensorProto::FLOAT);
  constant.mutable_dims()->Assign(shape.begin(), shape.end());
  std::vector<float> floats(values.begin(), values.end());
  constant.set_raw_data(floats.data(), floats.size() * sizeof(float));
  return constant.name();
}

std::string GraphWriter::Constant(onnx::TensorProto tensor) {
  tensor.set_name(FreshName());
  return (*graph.add_initializer() = std::move(tensor)).name();
}

std::string GraphWriter::Slice(const std::string& x, std::int64_t axis, std::int64_t from,
                               std::int64_t to) {
  return Apply("Slice", {x, Int64s({from}), Int64s({to}), Int64s({axis})});
}

std::string GraphWriter::Take(const std::string& x, std::int64_t axis, std::int64_t index) {
  onnx::NodeProto& node = Node("Gather", {x, Int64s({index}, true)});
  SetInt(node, "axis", axis);
  return Result(node);
}

std::string GraphWriter::Gather(const std::string& x, std::int64_t axis,
                                const std::vector<std::int64_t>& places) {
  onnx::NodeProto& node = Node("Gather", {x, Int64s(places)});
  SetInt(node, "axis", axis);
  return Result(node);
}

std::string GraphWriter::DropFirst(const std::string& x, std::int64_t axis, std::int64_t count) {
  return Slice(x, axis, count, std::numeric_limits<std::int64_t>::max());
}

std::string GraphWriter::Sum(const std::string& x, std::int64_t axis) {
  return Squeeze(WithAxes("ReduceSum", x, {axis}), {axis});
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

onnx::GraphProto Prefixed(const SourceModel& source, const std::string& prefix) {
  onnx::GraphProto graph = source.proto.graph();
  AddPrefixes(graph, prefix);
  return graph;
}

PartValues WritePart(GraphWriter& graph, const onnx::GraphProto& part, const std::string& prefix,
                     const Roles& roles, const std::vector<FedAudio>& fed,
                     const std::vector<std::string>& states, const std::string& outAxes) {
  for (std::size_t i = 0; i < fed.size(); ++i)
    FeedAudio(graph, prefix, roles.inputs[i], fed[i]);
  for (std::size_t i = 0; i < roles.states.size(); ++i)
    graph.Alias(states[i], prefix + roles.states[i].input.name);
  graph.Graph().mutable_node()->MergeFrom(part.node());
  graph.Graph().mutable_initializer()->MergeFrom(part.initializer());
  graph.Graph().mutable_sparse_initializer()->MergeFrom(part.sparse_initializer());
  PartValues out;
  if (!roles.outputs.empty()) out.audio = CollectAudio(graph, prefix, roles, outAxes);
  for (const StatePair& pair : roles.states)
    out.states.push_back(graph.Identity(prefix + pair.output.name));
  return out;
}

void DeclareShape(onnx::ValueInfoProto& feature, const std::vector<std::int64_t>& shape,
                  const std::vector<const char*>& symbols) {
  auto& declared = *feature.mutable_type()->mutable_tensor_type()->mutable_shape();
  std::size_t symbol = 0;
  for (const std::int64_t size : shape) {
    if (size > 0)
      declared.add_dim()->set_dim_value(size);
    else
      declared.add_dim()->set_dim_param(symbols[std::min(symbol++, symbols.size() - 1)]);
  }
}

}  // namespace Orvik::Tesmo::Tool
