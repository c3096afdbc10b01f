#include "adapt/adapted_model.h"

#include "adapt/graph_writer.h"
#include "command_line/errors.h"
#include "platform/platform.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr int leastIrVersion = 8;

/// Every value of the model inside gets this in front, so that no name is there twice.
constexpr const char* prefix = "model/";

struct Values {
  std::string audio;  ///< in: axes of Axes(); out: the same after a first one, the classes
  std::vector<std::string> states;
};

/// The axes of what the model inside is given at once.
std::string Axes(const Loops& loops) {
  return std::string(loops.overChannels ? "" : "N") + (loops.overWindows ? "" : "T") + "FC";
}

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

void AddPrefix(std::string& name) {
  if (!name.empty()) name.insert(0, prefix);
}

void AddPrefixes(onnx::GraphProto& graph) {
  for (auto& node : *graph.mutable_node()) {
    for (std::string& name : *node.mutable_input())
      AddPrefix(name);
    for (std::string& name : *node.mutable_output())
      AddPrefix(name);
    for (auto& attribute : *node.mutable_attribute()) {
      if (attribute.has_g()) AddPrefixes(*attribute.mutable_g());
      for (auto& inner : *attribute.mutable_graphs())
        AddPrefixes(inner);
    }
  }
  for (auto* features : {graph.mutable_input(), graph.mutable_output()})
    for (auto& feature : *features)
      AddPrefix(*feature.mutable_name());
  for (auto& weights : *graph.mutable_initializer())
    AddPrefix(*weights.mutable_name());
  for (auto& weights : *graph.mutable_sparse_initializer())
    AddPrefix(*weights.mutable_values()->mutable_name());
  // They name values and sizes that no longer hold.
  graph.clear_value_info();
  graph.clear_quantization_annotation();
}

class Builder {
public:
  Builder(const SourceModel& source, const Roles& roles, const Loops& loops)
      : roles(roles), loops(loops), axes(Axes(loops)), inside(source.proto.graph()) {
    AddPrefixes(inside);
  }

  Values Build(GraphWriter& graph, const Values& in) const {
    if (!loops.overChannels) return OverWindows(graph, in);
    const auto channel = [&](GraphWriter& body, const Values& one) {
      return OverWindows(body, one);
    };
    return Scan(graph, in, channel, 0, 1, true);
  }

private:
  Values OverWindows(GraphWriter& graph, const Values& in) const {
    if (!loops.overWindows) return Inside(graph, in);
    const auto window = [&](GraphWriter& body, const Values& one) { return Inside(body, one); };
    const std::int64_t axis = loops.overChannels ? 0 : 1;
    return Scan(graph, in, window, axis, axis + 1, false);
  }

  /// The loop of `body` along `axis` of the audio, which is `outAxis` of what it gives. States go
  /// through it, or with `slicesStates` each turn has its own.
  Values Scan(GraphWriter& graph, const Values& in, const auto& body, std::int64_t axis,
              std::int64_t outAxis, bool slicesStates) const {
    onnx::GraphProto bodyGraph;
    bodyGraph.set_name(slicesStates ? "channel" : "window");
    GraphWriter writer(bodyGraph, graph);
    Values one{writer.FreshName(), {}};
    std::vector<std::string> inputs = in.states;
    inputs.push_back(in.audio);
    for (const StatePair& pair : roles.states) {
      one.states.push_back(writer.FreshName());
      GraphWriter::Declare(*bodyGraph.add_input(), one.states.back(), pair.input.kind);
    }
    GraphWriter::Declare(*bodyGraph.add_input(), one.audio, Platform::TensorKind::Float);
    const Values result = body(writer, one);
    for (std::size_t i = 0; i < result.states.size(); ++i)
      GraphWriter::Declare(*bodyGraph.add_output(), result.states[i], roles.states[i].input.kind);
    GraphWriter::Declare(*bodyGraph.add_output(), result.audio, Platform::TensorKind::Float);

    onnx::NodeProto& node = graph.Node("Scan", inputs);
    std::vector<std::int64_t> inAxes = {axis}, outAxes = {outAxis};
    if (slicesStates) {
      inAxes.insert(inAxes.begin(), in.states.size(), 0);
      outAxes.insert(outAxes.begin(), in.states.size(), 0);
    }
    GraphWriter::SetInt(node, "num_scan_inputs", static_cast<std::int64_t>(inAxes.size()));
    GraphWriter::SetInts(node, "scan_input_axes", inAxes);
    GraphWriter::SetInts(node, "scan_output_axes", outAxes);
    onnx::AttributeProto& attribute = *node.add_attribute();
    attribute.set_name("body");
    attribute.set_type(onnx::AttributeProto::GRAPH);
    attribute.mutable_g()->Swap(&bodyGraph);
    Values out;
    for (std::size_t i = 0; i < in.states.size(); ++i)
      out.states.push_back(*node.mutable_output()->Add() = graph.FreshName());
    out.audio = *node.mutable_output()->Add() = graph.FreshName();
    return out;
  }

  /// The model itself.
  Values Inside(GraphWriter& graph, const Values& in) const {
    FeedAudio(graph, in.audio);
    for (std::size_t i = 0; i < roles.states.size(); ++i)
      graph.Alias(in.states[i], prefix + roles.states[i].input.name);
    graph.Graph().mutable_node()->MergeFrom(inside.node());
    graph.Graph().mutable_initializer()->MergeFrom(inside.initializer());
    graph.Graph().mutable_sparse_initializer()->MergeFrom(inside.sparse_initializer());
    Values out;
    out.audio = CollectAudio(graph);
    for (const StatePair& pair : roles.states)
      out.states.push_back(graph.Identity(prefix + pair.output.name));
    return out;
  }

  void FeedAudio(GraphWriter& graph, const std::string& audio) const {
    if (Has(roles.inputLayout, 'C')) {
      graph.Alias(IntoLayout(graph, audio, axes, roles.inputLayout), prefix + roles.inputs[0].name);
      return;
    }
    for (std::size_t part = 0; part < 2; ++part) {
      const std::string one = graph.Take(audio, static_cast<std::int64_t>(axes.size()) - 1,
                                         static_cast<std::int64_t>(part));
      graph.Alias(IntoLayout(graph, one, Without(axes, 'C'), roles.inputLayout),
                  prefix + roles.inputs[part].name);
    }
  }

  std::string CollectAudio(GraphWriter& graph) const {
    std::vector<std::string> classes, parts;
    const bool areTogether = Has(roles.outputLayout, 'C');
    for (const SourceTensor& output : roles.outputs) {
      const std::string one = OutOfLayout(graph, prefix + output.name, roles.outputLayout,
                                          areTogether ? axes : Without(axes, 'C'));
      if (areTogether) {
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

  const Roles& roles;
  Loops loops;
  std::string axes;
  onnx::GraphProto inside;
};

/// 0: `free`
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

void SetMetadata(onnx::ModelProto& model, const std::string& key, const std::string& value) {
  for (auto& entry : *model.mutable_metadata_props()) {
    if (entry.key() != key) continue;
    entry.set_value(value);
    return;
  }
  onnx::StringStringEntryProto& entry = *model.add_metadata_props();
  entry.set_key(key);
  entry.set_value(value);
}

bool HasMetadata(const onnx::ModelProto& model, std::string_view key) {
  return std::ranges::any_of(model.metadata_props(),
                             [&](const auto& entry) { return entry.key() == key; });
}

void WriteMetadata(onnx::ModelProto& model, const SourceModel& source, const Roles& roles,
                   const AdaptRequest& request) {
  if (!request.name.empty() || !HasMetadata(model, "Name"))
    SetMetadata(model, "Name",
                request.name.empty() ? std::filesystem::path(source.path).stem().string()
                                     : request.name);
  if (request.rate > 0) SetMetadata(model, "SampleRate", std::to_string(request.rate));
  SetMetadata(model, "LookaheadNumBlocks", std::to_string(request.lookahead));
  SetMetadata(model, "OverlapInSamples", std::to_string(roles.Window() / 2));
  if (!HasMetadata(model, "BaselineSequenceSize")) SetMetadata(model, "BaselineSequenceSize", "1");
  if (!request.classes.empty()) {
    SetMetadata(model, "AudioClassNames", nlohmann::json(request.classes).dump());
  } else if (roles.classCount > 1 && !HasMetadata(model, "AudioClassNames")) {
    throw Refusal("the model gives " + std::to_string(roles.classCount) +
                  " classes; name them with --classes A,B,...");
  }
}

}  // namespace

std::vector<Loops> PossibleLoops(const Roles& roles) {
  const auto hasFree = [](const std::vector<SourceTensor>& tensors, const Layout& layout,
                          char axis) {
    const std::size_t place = layout.find(axis);
    return place != Layout::npos && std::ranges::all_of(tensors, [&](const SourceTensor& tensor) {
             return tensor.shape[place].size == 0;
           });
  };
  const auto takesMany = [&](char axis) {
    return hasFree(roles.inputs, roles.inputLayout, axis) && Has(roles.outputLayout, axis);
  };
  const bool hasChannels =
      takesMany('N') && std::ranges::all_of(roles.states, [](const StatePair& pair) {
        return std::ranges::count(pair.input.shape, 0, &SourceDimension::size) == 1;
      });
  std::vector<Loops> all;
  for (const bool overChannels : {false, true})
    for (const bool overWindows : {false, true})
      if ((overChannels || hasChannels) && (overWindows || takesMany('T')))
        all.push_back({overChannels, overWindows});
  return all;
}

std::vector<std::int64_t> AdaptedStateShape(const StatePair& pair, const Loops& loops) {
  std::vector<std::int64_t> shape;
  if (loops.overChannels) shape.push_back(0);
  for (const SourceDimension& dimension : pair.input.shape)
    shape.push_back(dimension.size > 0 ? dimension.size : loops.overChannels ? 1 : 0);
  return shape;
}

std::string BuildAdaptedModel(const SourceModel& source, const Roles& roles,
                              const AdaptRequest& request, const Loops& loops) {
  onnx::ModelProto model = source.proto;
  model.set_ir_version(std::max<std::int64_t>(model.ir_version(), leastIrVersion));
  WriteMetadata(model, source, roles, request);
  onnx::GraphProto& graph = *model.mutable_graph();
  graph.Clear();
  graph.set_name("adapted");
  GraphWriter writer(graph, source.opset);

  GraphWriter::Declare(*graph.add_input(), "input", Platform::TensorKind::Float);
  DeclareShape(*graph.mutable_input(0), {0, 0, roles.bins, 2},
               {"channels", request.lookahead > 0 ? "windows_in" : "windows"});
  Values in{"input", {}};
  if (request.lookahead > 0)
    in.audio = writer.DropFirst("input", 1, static_cast<std::int64_t>(request.lookahead));
  for (const StatePair& pair : roles.states) {
    onnx::ValueInfoProto& feature = *graph.add_input();
    GraphWriter::Declare(feature, "state/" + pair.input.name, pair.input.kind);
    DeclareShape(feature, AdaptedStateShape(pair, loops), {"channels"});
    in.states.push_back(feature.name());
  }
  const Values out = Builder(source, roles, loops).Build(writer, in);

  writer.Alias(out.audio, "output");
  GraphWriter::Declare(*graph.add_output(), "output", Platform::TensorKind::Float);
  DeclareShape(*graph.mutable_output(0), {roles.classCount, 0, 0, roles.bins, 2},
               {"channels", "windows"});
  for (std::size_t i = 0; i < out.states.size(); ++i) {
    const StatePair& pair = roles.states[i];
    onnx::ValueInfoProto& feature = *graph.add_output();
    GraphWriter::Declare(feature, "newState/" + pair.output.name, pair.output.kind);
    DeclareShape(feature, AdaptedStateShape(pair, loops), {"channels"});
    writer.Alias(out.states[i], feature.name());
  }
  return model.SerializeAsString();
}

}  // namespace Orvik::Tesmo::Tool
