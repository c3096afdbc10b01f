// Reading someone else's model: weights from other files, older opsets, sizes that only a run
// tells, and the hidden states of recurrent layers.

#include "adapt/graph_writer.h"
#include "command_line/errors.h"
#include "diagnosis/model_description.h"

#include <onnx/version_converter/convert.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <random>
#include <set>

namespace Orvik::Tesmo::Tool {
namespace {

/// Below `leastOwnOpset` the graph that is written around a model would have other operators.
constexpr std::int64_t mostFilled = 1 << 20;  ///< values of a tensor that --set fills

constexpr int leastOpset = 7, leastOwnOpset = 11, convertedOpset = 17, mostOpset = 21;

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

/// Weights that lie in another file. It has to be in the folder of the model, so that a model
/// cannot name other files of the machine.
void TakeIn(onnx::TensorProto& weights, const std::string& modelPath) {
  if (weights.data_location() != onnx::TensorProto::EXTERNAL) return;
  std::map<std::string, std::string> entries;
  for (const auto& entry : weights.external_data())
    entries[entry.key()] = entry.value();
  const std::filesystem::path location = entries["location"];
  const std::string shown = "the weights '" + weights.name() + "' lie in another file, ";
  if (location.empty() || location != location.filename() || location == "..")
    throw Refusal(shown + "'" + location.string() + "', which is not in the folder of the model");
  const auto path = std::filesystem::path(modelPath).parent_path() / location;
  const ModelFile file = ReadModelFile(path.string());
  const auto number = [&](const char* key, std::size_t otherwise) {
    const std::string& text = entries[key];
    std::size_t value = otherwise;
    if (!text.empty() &&
        std::from_chars(text.data(), text.data() + text.size(), value).ec != std::errc())
      value = SIZE_MAX;
    return value;
  };
  const std::size_t offset = number("offset", 0);
  const std::size_t length =
      number("length", offset <= file.bytes.size() ? file.bytes.size() - offset : 0);
  if (offset > file.bytes.size() || length > file.bytes.size() - offset)
    throw Refusal(shown + path.string() + ", which is too short");
  weights.set_raw_data(file.bytes.data() + offset, length);
  weights.clear_external_data();
  weights.clear_data_location();
}

void TakeIn(onnx::GraphProto& graph, const std::string& modelPath) {
  for (auto& weights : *graph.mutable_initializer())
    TakeIn(weights, modelPath);
  for (auto& node : *graph.mutable_node())
    for (auto& attribute : *node.mutable_attribute()) {
      if (attribute.has_t()) TakeIn(*attribute.mutable_t(), modelPath);
      if (attribute.has_g()) TakeIn(*attribute.mutable_g(), modelPath);
    }
}

void ReadFeatures(SourceModel& source) {
  const onnx::GraphProto& graph = source.proto.graph();
  std::set<std::string> given;
  for (const auto& weights : graph.initializer())
    given.insert(weights.name());
  source.inputs.clear();
  source.outputs.clear();
  for (const auto& input : graph.input())
    if (!given.contains(input.name())) source.inputs.push_back(ReadTensor(input));
  for (const auto& output : graph.output())
    source.outputs.push_back(ReadTensor(output));
}

/// Its shape with free dimensions being `free`.
Platform::Shape ShapeWith(const SourceTensor& tensor, std::int64_t free) {
  Platform::Shape shape;
  for (const SourceDimension& dimension : tensor.shape)
    shape.push_back(dimension.size > 0 ? dimension.size : free);
  return shape;
}

bool HasUnknownSize(const SourceTensor& tensor) {
  return !tensor.hasShape || std::ranges::count(tensor.shape, 0, &SourceDimension::size) > 0;
}

/// Of a tensor whose values a run tells: its sizes, or the numbers in it, an int64 vector.
struct Asked {
  std::string name;
  bool isForNumbers = false;
};

/// Adds the output "asked/NAME", 1 + mostNumbers numbers: how many there are, they, and zeros.
constexpr std::int64_t mostNumbers = 16;
void AddNumbersOutput(onnx::GraphProto& graph, int opset, const Asked& asked) {
  const std::string label = "asked/" + asked.name;
  GraphWriter writer(graph, opset, label + "/");
  const std::string numbers = asked.isForNumbers ? asked.name : writer.Apply("Shape", {asked.name});
  const std::string zeros = writer.Int64s(std::vector<std::int64_t>(mostNumbers));
  writer.Alias(writer.Slice(writer.Concat({writer.Apply("Shape", {numbers}), numbers, zeros}, 0), 0,
                            0, 1 + mostNumbers),
               label);
  onnx::ValueInfoProto& output = *graph.add_output();
  GraphWriter::Declare(output, label, Platform::TensorKind::Int64);
  DeclareShape(output, {1 + mostNumbers}, {});
}

/// The sizes or numbers of `all` in a run on zeros and the constants, free dimensions being `free`.
std::vector<std::vector<std::int64_t>>
RunForNumbers(Platform::Runtime& runtime, const SourceModel& model, const std::vector<Asked>& all,
              const AdaptRequest& request, std::int64_t free) {
  onnx::ModelProto proto = model.proto;
  for (const Asked& asked : all)
    AddNumbersOutput(*proto.mutable_graph(), model.opset, asked);
  std::vector<const SourceTensor*> bound;
  for (const SourceTensor& input : model.inputs) {
    const auto constant =
        std::ranges::find(request.constants, input.name, &NamePairs::value_type::first);
    if (constant == request.constants.end()) {
      bound.push_back(&input);
      continue;
    }
    *proto.mutable_graph()->add_initializer() =
        FilledTensor(input, {ParseNumber(constant->second)}, "--set");
    auto& inputs = *proto.mutable_graph()->mutable_input();
    const auto place = std::ranges::find_if(
        inputs, [&](const auto& feature) { return feature.name() == input.name; });
    inputs.erase(place);
  }
  ModelRun run(runtime, proto.SerializeAsString());
  for (const SourceTensor* input : bound)
    run.Bind(Platform::Side::Input, input->name, ShapeWith(*input, free), input->kind);
  std::vector<std::size_t> places;
  places.reserve(all.size());
  for (const Asked& asked : all)
    places.push_back(run.Bind(Platform::Side::Output, "asked/" + asked.name, {1 + mostNumbers},
                              Platform::TensorKind::Int64));
  run.Restart();
  run.Evaluate();
  std::vector<std::vector<std::int64_t>> result;
  for (const std::size_t place : places) {
    const std::vector<std::int64_t> numbers = run.GetNumbers(place);
    const std::int64_t count = std::min(numbers[0], mostNumbers);
    result.emplace_back(numbers.begin() + 1, numbers.begin() + 1 + count);
  }
  return result;
}

/// Whether the value called `name` is zero whatever the inputs are.
bool IsZero(const onnx::GraphProto& graph, const std::string& name) {
  const auto isZeroTensor = [](const onnx::TensorProto& tensor) {
    const auto isZeroByte = [](char byte) { return byte == 0; };
    return std::ranges::all_of(tensor.raw_data(), isZeroByte) &&
           std::ranges::all_of(tensor.float_data(), [](float value) { return value == 0; });
  };
  for (const auto& weights : graph.initializer())
    if (weights.name() == name) return isZeroTensor(weights);
  for (const auto& node : graph.node()) {
    if (node.output_size() == 0 || node.output(0) != name) continue;
    const std::string& type = node.op_type();
    if (type == "Constant" || type == "ConstantOfShape")
      return std::ranges::all_of(node.attribute(), [&](const auto& attribute) {
        return attribute.has_t() && isZeroTensor(attribute.t());
      });
    static const std::set<std::string> passesOn = {"Identity", "Expand", "Slice",     "Unsqueeze",
                                                   "Squeeze",  "Cast",   "Transpose", "Reshape",
                                                   "Gather",   "Tile"};
    if (type == "Concat")
      return std::ranges::all_of(node.input(), [&](const auto& in) { return IsZero(graph, in); });
    return passesOn.contains(type) && IsZero(graph, node.input(0));
  }
  return false;
}

bool RunsBackward(const onnx::NodeProto& node) {
  return std::ranges::any_of(node.attribute(), [](const auto& attribute) {
    return attribute.name() == "direction" && attribute.s() != "forward";
  });
}

onnx::AttributeProto* FindAttribute(onnx::NodeProto& node, const char* name) {
  for (auto& attribute : *node.mutable_attribute())
    if (attribute.name() == name) return &attribute;
  return nullptr;
}

/// A state that the graph hides, and the shape of what it is carried on in.
struct Hidden {
  std::string name, next;
  Platform::Shape shape;
};

/// The first and last states of the recurrent nodes that start at zero, made inputs and outputs of
/// those.
std::vector<Hidden> FindRecurrent(onnx::GraphProto& graph, std::size_t firstNumber) {
  std::vector<Hidden> all;
  for (auto& node : *graph.mutable_node()) {
    const bool isLstm = node.op_type() == "LSTM";
    if (!isLstm && node.op_type() != "GRU" && node.op_type() != "RNN") continue;
    for (int k = 0; k < (isLstm ? 2 : 1); ++k) {
      const int input = 5 + k, output = 1 + k;  // of Y_h and Y_c
      if (node.input_size() > input && !node.input(input).empty() &&
          !IsZero(graph, node.input(input)))
        continue;
      if (RunsBackward(node))
        throw Refusal("the recurrent layer '" + node.name() +
                      "' also runs backward in time, so that its state cannot be carried on "
                      "(--carry-hidden)");
      while (node.output_size() <= output)
        node.add_output("");
      const std::string name = "hidden/" + std::to_string(firstNumber + all.size());
      if (node.output(output).empty()) node.set_output(output, name + "/next");
      all.push_back({name, node.output(output), {}});
    }
  }
  return all;
}

/// Puts the states in place of the zeros.
void FeedRecurrent(onnx::GraphProto& graph, const std::vector<Hidden>& all) {
  for (auto& node : *graph.mutable_node())
    for (int k = 0; k < 2; ++k)
      for (const Hidden& hidden : all) {
        if (node.output_size() <= 1 + k || node.output(1 + k) != hidden.next) continue;
        while (node.input_size() <= 5 + k)
          node.add_input("");
        node.set_input(5 + k, hidden.name);
      }
}

/// A node that puts `count` windows of zeros in front of the first one: Pad, or Conv.
struct Padding {
  int node;
  std::int64_t axis, count;
  std::vector<std::int64_t> sizes, pads;  ///< of its input; all that it pads
};

/// A free dimension is taken for time where windows are added in front alone.
std::vector<Padding> FindPaddings(Platform::Runtime& runtime, const SourceModel& model,
                                  const AdaptRequest& request) {
  onnx::GraphProto graph = model.proto.graph();
  std::vector<Padding> candidates;
  std::vector<Asked> asked;
  for (int i = 0; i < graph.node_size(); ++i) {
    onnx::NodeProto& node = *graph.mutable_node(i);
    Padding padding{i, 0, 0, {}, {}};
    if (node.op_type() == "Conv") {
      const onnx::AttributeProto* const pads = FindAttribute(node, "pads");
      if (pads == nullptr) continue;
      const int spatial = pads->ints_size() / 2;
      for (int k = 0; k < pads->ints_size(); ++k) {
        if (k % spatial == 0) padding.pads.insert(padding.pads.end(), 2, 0);
        padding.pads.push_back(pads->ints(k));
      }
      if (std::ranges::count(padding.pads, 0) == std::ssize(padding.pads)) continue;
    } else {
      const onnx::AttributeProto* const mode = FindAttribute(node, "mode");
      const bool isZero =
          node.input_size() < 3 || node.input(2).empty() || IsZero(graph, node.input(2));
      if (node.op_type() != "Pad" || node.input_size() < 2 || !isZero ||
          (node.input_size() > 3 && !node.input(3).empty()) ||
          (mode != nullptr && mode->s() != "constant"))
        continue;
      asked.push_back({node.input(1), true});
    }
    asked.push_back({node.input(0)});
    candidates.push_back(padding);
  }
  std::vector<Padding> all;
  if (candidates.empty()) return all;
  // One that two nodes have is asked for once.
  std::ranges::sort(asked, {}, &Asked::name);
  const auto isSame = [](const Asked& a, const Asked& b) { return a.name == b.name; };
  asked.erase(std::unique(asked.begin(), asked.end(), isSame), asked.end());
  std::vector<std::vector<std::int64_t>> one, two;
  try {
    one = RunForNumbers(runtime, model, asked, request, 1);
    two = RunForNumbers(runtime, model, asked, request, 2);
  } catch (...) {
    return all;  // A model of fixed sizes has no time to pad, unless it runs with one window alone.
  }
  const auto place = [&](const std::string& name) {
    return static_cast<std::size_t>(std::ranges::find(asked, name, &Asked::name) - asked.begin());
  };
  for (Padding& padding : candidates) {
    const onnx::NodeProto& node = graph.node(padding.node);
    if (padding.pads.empty()) padding.pads = one[place(node.input(1))];
    padding.sizes = one[place(node.input(0))];
    const std::vector<std::int64_t>& other = two[place(node.input(0))];
    const std::size_t rank = padding.sizes.size();
    if (padding.pads.size() != 2 * rank || other.size() != rank) continue;
    for (std::size_t d = 0; d < rank; ++d) {
      if (padding.sizes[d] == other[d] || padding.pads[d] <= 0 || padding.pads[rank + d] != 0)
        continue;
      padding.axis = static_cast<std::int64_t>(d);
      padding.count = padding.pads[d];
      all.push_back(padding);
      break;
    }
  }
  return all;
}

/// Puts the last windows in place of the zeros.
std::vector<Hidden> CarryPaddings(SourceModel& model, const std::vector<Padding>& paddings,
                                  std::size_t firstNumber) {
  onnx::GraphProto& graph = *model.proto.mutable_graph();
  auto nodes = graph.node();
  graph.clear_node();
  std::vector<Hidden> all;
  for (int i = 0; i < nodes.size(); ++i) {
    onnx::NodeProto& node = nodes[i];
    const auto padding = std::ranges::find(paddings, i, &Padding::node);
    if (padding != paddings.end()) {
      Hidden hidden{"hidden/" + std::to_string(firstNumber + all.size()), {}, padding->sizes};
      hidden.next = hidden.name + "/next";
      const auto axis = static_cast<std::size_t>(padding->axis);
      hidden.shape[axis] = padding->count;
      GraphWriter writer(graph, model.opset, hidden.name + "/");
      const std::string windows = writer.Concat({hidden.name, node.input(0)}, padding->axis);
      writer.Alias(writer.Slice(windows, padding->axis, -padding->count,
                                std::numeric_limits<std::int64_t>::max()),
                   hidden.next);
      node.set_input(0, windows);
      std::vector<std::int64_t> pads = padding->pads;
      pads[axis] = 0;
      if (node.op_type() == "Pad")
        node.set_input(1, writer.Int64s(pads));
      else
        FindAttribute(node, "pads")->set_ints(static_cast<int>(axis) - 2, 0);
      all.push_back(hidden);
    }
    *graph.add_node() = node;
  }
  return all;
}

/// The part of `values`, of `shape`, that has `index` in its free dimension.
std::vector<float> OneWindow(const std::vector<float>& values, const SourceTensor& tensor,
                             std::int64_t windows, std::int64_t index) {
  std::int64_t inner = 1;
  for (std::size_t d = tensor.shape.size(); d-- > 0 && tensor.shape[d].size > 0;)
    inner *= tensor.shape[d].size;
  std::vector<float> part;
  for (auto from = values.begin() + index * inner; from < values.end(); from += windows * inner)
    part.insert(part.end(), from, from + inner);
  return part;
}

/// Where the model takes any number of windows at once: Refusal unless that returns what it returns
/// window by window, with its states carried on.
void CheckCarried(Platform::Runtime& runtime, const SourceModel& original,
                  const SourceModel& carried, const NamePairs& pairs) {
  constexpr std::int64_t windows = 6;
  const auto hasTime = [](const SourceTensor& tensor) {
    const auto free = std::ranges::find(tensor.shape, 0, &SourceDimension::size);
    return tensor.kind == Platform::TensorKind::Float && tensor.hasShape &&
           std::ranges::count(tensor.shape, 0, &SourceDimension::size) == 1 &&
           IsTime(tensor.shape, static_cast<std::size_t>(free - tensor.shape.begin()));
  };
  if (!std::ranges::all_of(original.inputs, hasTime) ||
      std::ranges::none_of(original.outputs, hasTime))
    return;
  const auto bind = [&](ModelRun& run, std::int64_t count) {
    std::vector<std::size_t> places;
    for (const SourceTensor& input : original.inputs)
      places.push_back(run.Bind(Platform::Side::Input, input.name, ShapeWith(input, count)));
    for (const SourceTensor& output : original.outputs)
      places.push_back(
          run.Bind(Platform::Side::Output, output.name, ShapeWith(output, count), output.kind));
    return places;
  };
  ModelRun whole(runtime, original.proto.SerializeAsString());
  ModelRun step(runtime, carried.proto.SerializeAsString());
  const std::vector<std::size_t> ofWhole = bind(whole, windows), ofStep = bind(step, 1);
  for (const auto& [in, out] : pairs) {
    const auto state = std::ranges::find(carried.inputs, in, &SourceTensor::name);
    step.BindState(in, out, Platform::TensorKind::Float, ShapeWith(*state, 1));
  }
  whole.Restart();
  step.Restart();
  std::minstd_rand random(1);
  std::vector<std::vector<float>> values;
  for (std::size_t i = 0; i < original.inputs.size(); ++i) {
    values.push_back(whole.Get(ofWhole[i]));
    for (float& value : values.back())
      value = static_cast<float>(random() % 2001) / 1000.0F - 1.0F;
    whole.Set(ofWhole[i], values.back());
  }
  whole.Evaluate();
  for (std::int64_t t = 0; t < windows; ++t) {
    for (std::size_t i = 0; i < original.inputs.size(); ++i)
      step.Set(ofStep[i], OneWindow(values[i], original.inputs[i], windows, t));
    step.Evaluate();
    for (std::size_t i = 0; i < original.outputs.size(); ++i) {
      const SourceTensor& output = original.outputs[i];
      const std::size_t place = original.inputs.size() + i;
      if (!hasTime(output)) continue;
      const Comparison comparison = Compare(
          OneWindow(whole.Get(ofWhole[place]), output, windows, t), step.Get(ofStep[place]));
      if (!comparison.IsEqual())
        throw Refusal("the model " + original.path + " returns other values of " +
                      SourceTensorText(output) + " for " + std::to_string(windows) +
                      " windows at once than window by window: it looks ahead, or remembers "
                      "something that is no GRU, LSTM, RNN or padding with zeros, which "
                      "--carry-hidden carries on");
    }
  }
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
    throw Refusal("the model has opset " + std::to_string(source.opset) + "; 7 to 21 can be " +
                  "adapted. Export it again, with opset 17");
  TakeIn(*source.proto.mutable_graph(), file.path);
  if (source.opset < leastOwnOpset) ConvertOpset(source, convertedOpset);
  ReadFeatures(source);
  return source;
}

void ConvertOpset(SourceModel& model, int opset) {
  if (model.opset == opset) return;
  const std::string what = "the model " + model.path + " has opset " + std::to_string(model.opset) +
                           " and cannot be converted to " + std::to_string(opset) + ": ";
  try {
    model.proto = onnx::version_conversion::ConvertVersion(model.proto, opset);
  } catch (const std::exception& error) {
    throw Refusal(what + error.what() + ". Export it again, with opset " + std::to_string(opset));
  }
  if (OwnOpset(model.proto) != opset) throw Refusal(what + "export it again");
  model.opset = opset;
  ReadFeatures(model);
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

std::string SourceTensorText(const std::vector<SourceTensor>& tensors) {
  std::string text;
  for (const SourceTensor& tensor : tensors)
    text += (text.empty() ? "" : ", ") + SourceTensorText(tensor);
  return text.empty() ? "nothing" : text;
}

void LearnShapes(Platform::Runtime& runtime, SourceModel& model, const AdaptRequest& request) {
  std::vector<SourceTensor*> unknown;
  std::vector<Asked> asked;
  for (SourceTensor& output : model.outputs) {
    if (!HasUnknownSize(output)) continue;
    unknown.push_back(&output);
    asked.push_back({output.name});
  }
  if (unknown.empty()) return;
  std::vector<std::vector<std::int64_t>> one, two;
  try {
    one = RunForNumbers(runtime, model, asked, request, 1);
    if (std::ranges::any_of(model.inputs, HasUnknownSize))
      two = RunForNumbers(runtime, model, asked, request, 2);
  } catch (...) {
    // What cannot be learnt stays free; whoever needs it says so.
  }
  for (std::size_t i = 0; i < one.size(); ++i) {
    SourceTensor& output = *unknown[i];
    if (output.hasShape && output.shape.size() != one[i].size()) continue;
    output.hasShape = true;
    output.shape.resize(one[i].size());
    const bool isSame = two.empty() || two[i].size() != one[i].size();
    for (std::size_t d = 0; d < one[i].size(); ++d)
      if (output.shape[d].size == 0 && (isSame || two[i][d] == one[i][d]))
        output.shape[d].size = one[i][d];
  }
}

NamePairs BringOutHiddenStates(Platform::Runtime& runtime, SourceModel& model,
                               const AdaptRequest& request) {
  const SourceModel original = model;
  onnx::GraphProto& graph = *model.proto.mutable_graph();
  std::vector<Hidden> all = FindRecurrent(graph, request.states.size());
  std::vector<Asked> asked;
  asked.reserve(all.size());
  for (const Hidden& hidden : all)
    asked.push_back({hidden.next});
  try {
    const auto shapes = asked.empty() ? std::vector<std::vector<std::int64_t>>()
                                      : RunForNumbers(runtime, model, asked, request, 1);
    for (std::size_t i = 0; i < all.size(); ++i)
      all[i].shape = shapes[i];
  } catch (...) {
    throw Refusal("the sizes of the hidden states cannot be learnt by running the model: " +
                  TextOfCurrentException());
  }
  const std::vector<Padding> paddings = FindPaddings(runtime, model, request);
  FeedRecurrent(graph, all);
  for (const Hidden& hidden : CarryPaddings(model, paddings, request.states.size() + all.size()))
    all.push_back(hidden);
  NamePairs pairs;
  for (const Hidden& hidden : all) {
    const auto declare = [&](onnx::ValueInfoProto& feature, const std::string& name) {
      GraphWriter::Declare(feature, name, Platform::TensorKind::Float);
      DeclareShape(feature, hidden.shape, {"batch"});
    };
    declare(*graph.add_input(), hidden.name);
    if (std::ranges::none_of(graph.output(),
                             [&](const auto& out) { return out.name() == hidden.next; }))
      declare(*graph.add_output(), hidden.next);
    pairs.emplace_back(hidden.name, hidden.next);
  }
  // Outputs that were learnt stay so.
  const std::vector<SourceTensor> learnt = model.outputs;
  ReadFeatures(model);
  for (SourceTensor& output : model.outputs)
    for (const SourceTensor& known : learnt)
      if (known.name == output.name) output = known;
  try {
    CheckCarried(runtime, original, model, pairs);
  } catch (const Refusal&) {
    throw;
  } catch (...) {
    // What runs with one window alone cannot be compared, and need not be.
  }
  return pairs;
}

onnx::TensorProto FilledTensor(const SourceTensor& tensor, const std::vector<double>& values,
                               const char* option) {
  onnx::TensorProto filled;
  filled.set_name(tensor.name);
  filled.set_data_type(static_cast<std::int32_t>(tensor.kind));
  std::int64_t count = 1;
  for (const SourceDimension& dimension : tensor.shape) {
    const std::int64_t size = std::max<std::int64_t>(dimension.size, 1);
    filled.add_dims(size);
    count = size > mostFilled / count ? mostFilled + 1 : count * size;
  }
  if (count > mostFilled)
    throw Refusal("the tensor " + SourceTensorText(tensor) + " is too large for " + option);
  for (std::int64_t i = 0; i < count; ++i) {
    const double value = values[values.size() == 1 ? 0 : static_cast<std::size_t>(i)];
    switch (tensor.kind) {
    case Platform::TensorKind::Float:
      filled.add_float_data(static_cast<float>(value));
      break;
    case Platform::TensorKind::Double:
      filled.add_double_data(value);
      break;
    case Platform::TensorKind::Int64:
      filled.add_int64_data(static_cast<std::int64_t>(value));
      break;
    case Platform::TensorKind::Int32:
    case Platform::TensorKind::Boolean:
      filled.add_int32_data(static_cast<std::int32_t>(value));
      break;
    default:
      throw Refusal("the tensor " + SourceTensorText(tensor) + " has a type that " + option +
                    " cannot write: float32, float64, int32, int64 and bool can be");
    }
  }
  return filled;
}

}  // namespace Orvik::Tesmo::Tool
