// The step, looped over channels and windows, as a model of the contract.

#include "adapt/graph_writer.h"
#include "command_line/errors.h"
#include "platform/platform.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr int leastIrVersion = 8;

constexpr const char* prefix = "model/";

/// The axes of what the step is given at once.
std::string Axes(const Roles& roles, const Loops& loops) {
  return std::string(loops.overChannels ? "" : "N") + (loops.overWindows ? "" : "T") +
         (IsSpectral(roles.result) ? "FC" : "F");
}

class Builder {
public:
  Builder(const Plan& step, const Loops& loops)
      : roles(step.parts[0]), loops(loops), axes(Axes(roles, loops)),
        inside(Prefixed(step.sources[0], prefix)) {}

  PartValues Build(GraphWriter& graph, const PartValues& in) const {
    if (!loops.overChannels) return OverWindows(graph, in);
    const auto channel = [&](GraphWriter& body, const PartValues& one) {
      return OverWindows(body, one);
    };
    return Scan(graph, in, channel, 0, 1, true);
  }

private:
  PartValues OverWindows(GraphWriter& graph, const PartValues& in) const {
    if (!loops.overWindows) return Inside(graph, in);
    const auto window = [&](GraphWriter& body, const PartValues& one) { return Inside(body, one); };
    const std::int64_t axis = loops.overChannels ? 0 : 1;
    return Scan(graph, in, window, axis, axis + 1, false);
  }

  /// The loop of `body` along `axis` of the audio, which is `outAxis` of what it returns. States go
  /// through it, or with `slicesStates` each turn has its own.
  PartValues Scan(GraphWriter& graph, const PartValues& in, const auto& body, std::int64_t axis,
                  std::int64_t outAxis, bool slicesStates) const {
    onnx::GraphProto bodyGraph;
    bodyGraph.set_name(slicesStates ? "channel" : "window");
    GraphWriter writer(bodyGraph, graph);
    PartValues one{writer.FreshName(), {}};
    std::vector<std::string> inputs = in.states;
    inputs.push_back(in.audio);
    for (const StatePair& pair : roles.states) {
      one.states.push_back(writer.FreshName());
      GraphWriter::Declare(*bodyGraph.add_input(), one.states.back(), pair.input.kind);
    }
    GraphWriter::Declare(*bodyGraph.add_input(), one.audio, Platform::TensorKind::Float);
    const PartValues result = body(writer, one);
    // The engine wants the shapes of a loop's results, and does not always find them itself.
    for (std::size_t i = 0; i < result.states.size(); ++i) {
      onnx::ValueInfoProto& feature = *bodyGraph.add_output();
      GraphWriter::Declare(feature, result.states[i], roles.states[i].input.kind);
      std::vector<std::int64_t> shape = AdaptedStateShape(roles.states[i], loops);
      if (loops.overChannels) shape.erase(shape.begin());
      DeclareShape(feature, shape, {"channels"});
    }
    GraphWriter::Declare(*bodyGraph.add_output(), result.audio, Platform::TensorKind::Float);
    std::vector<std::int64_t> shape = {roles.classCount};
    if (!loops.overChannels) shape.push_back(0);
    if (slicesStates) shape.push_back(0);  // all windows of one channel
    shape.push_back(roles.outputSize);
    if (IsSpectral(roles.result)) shape.push_back(2);
    DeclareShape(*bodyGraph.mutable_output(bodyGraph.output_size() - 1), shape,
                 {slicesStates ? "windows" : "channels"});

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
    PartValues out;
    for (std::size_t i = 0; i < in.states.size(); ++i)
      out.states.push_back(*node.mutable_output()->Add() = graph.FreshName());
    out.audio = *node.mutable_output()->Add() = graph.FreshName();
    return out;
  }

  PartValues Inside(GraphWriter& graph, const PartValues& in) const {
    return WritePart(graph, inside, prefix, roles, {{in.audio, axes}}, in.states, axes);
  }

  const Roles& roles;
  Loops loops;
  std::string axes;
  onnx::GraphProto inside;
};

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

/// The window as the metadata say it; nothing for what the library takes without, root-Hann.
std::optional<nlohmann::json> WindowShape(const Framing& framing) {
  const bool isWhole = framing.window == framing.transform;
  if (isWhole && framing.windowName == "root-hann") return {};
  for (const char* known : {"root-hann", "hann", "vorbis", "rectangular"}) {
    if (framing.windowName != known) continue;
    if (isWhole) return known;
    return nlohmann::json{{"shape", known}, {"length", framing.window}};
  }
  const auto length = static_cast<std::size_t>(framing.window);
  return nlohmann::json{{"analysis", MakeWindow(framing.windowName, length, length)}};
}

void WriteMetadata(onnx::ModelProto& model, const Plan& step, const AdaptRequest& request) {
  if (!request.name.empty() || !HasMetadata(model, "Name"))
    SetMetadata(model, "Name",
                request.name.empty() ? std::filesystem::path(step.sources[0].path).stem().string()
                                     : request.name);
  if (request.rate > 0) SetMetadata(model, "SampleRate", std::to_string(request.rate));
  SetMetadata(model, "LookaheadNumBlocks", std::to_string(step.lookahead));
  SetMetadata(model, "OverlapInSamples", std::to_string(step.framing.hop));
  if (!HasMetadata(model, "BaselineSequenceSize")) SetMetadata(model, "BaselineSequenceSize", "1");
  if (step.framing.isOnSpectra)
    if (const auto shape = WindowShape(step.framing))
      SetMetadata(model, "WindowShape", shape->dump());
  if (!request.classes.empty()) {
    SetMetadata(model, "AudioClassNames", nlohmann::json(request.classes).dump());
  } else if (step.ClassCount() > 1 && !HasMetadata(model, "AudioClassNames")) {
    throw Refusal("the model gives " + std::to_string(step.ClassCount()) +
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
    return hasFree(roles.inputs[0].tensors, roles.inputs[0].layout, axis) &&
           Has(roles.outputLayout, axis);
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

std::string BuildAdaptedModel(const Plan& step, const AdaptRequest& request, const Loops& loops) {
  const SourceModel& source = step.sources[0];
  const Roles& roles = step.parts[0];
  const bool isSpectral = IsSpectral(roles.result);
  onnx::ModelProto model = source.proto;
  model.set_ir_version(std::max<std::int64_t>(model.ir_version(), leastIrVersion));
  WriteMetadata(model, step, request);
  onnx::GraphProto& graph = *model.mutable_graph();
  graph.Clear();
  graph.set_name("adapted");
  GraphWriter writer(graph, source.opset);

  GraphWriter::Declare(*graph.add_input(), "input", Platform::TensorKind::Float);
  std::vector<std::int64_t> shape = {0, 0, roles.inputs[0].size};
  if (isSpectral) shape.push_back(2);
  DeclareShape(*graph.mutable_input(0), shape,
               {"channels", step.lookahead > 0 ? "windows_in" : "windows"});
  PartValues in{"input", {}};
  if (step.lookahead > 0) in.audio = writer.DropFirst("input", 1, step.lookahead);
  for (const StatePair& pair : roles.states) {
    onnx::ValueInfoProto& feature = *graph.add_input();
    GraphWriter::Declare(feature, "state/" + pair.input.name, pair.input.kind);
    DeclareShape(feature, AdaptedStateShape(pair, loops), {"channels"});
    in.states.push_back(feature.name());
  }
  const PartValues out = Builder(step, loops).Build(writer, in);

  writer.Alias(out.audio, "output");
  GraphWriter::Declare(*graph.add_output(), "output", Platform::TensorKind::Float);
  shape.insert(shape.begin(), roles.classCount);
  DeclareShape(*graph.mutable_output(0), shape, {"channels", "windows"});
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
