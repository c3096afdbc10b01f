// Reading someone else's model: weights from other files, older opsets, sizes that only a run
// tells, and the hidden states of recurrent layers.

#include "adapt/adapt.h"
#include "command_line/errors.h"
#include "diagnosis/model_description.h"

#include <onnx/version_converter/convert.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

namespace Orvik::Tesmo::Tool {
namespace {

/// Below `leastOwnOpset` the graph that is written around a model would have other operators.
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

bool HasUnknownSize(const SourceTensor& tensor) {
  return !tensor.hasShape || std::ranges::count(tensor.shape, 0, &SourceDimension::size) > 0;
}

/// Adds the output "shape/NAME", 1 + mostRank numbers: how many dimensions `name` has, their sizes,
/// and zeros.
constexpr std::int64_t mostRank = 8;
void AddShapeOutput(onnx::GraphProto& graph, const std::string& name) {
  const std::string prefix = "shape/" + name;
  const auto add = [&](const char* type, const std::vector<std::string>& inputs,
                       const std::string& output) -> onnx::NodeProto& {
    onnx::NodeProto& node = *graph.add_node();
    node.set_op_type(type);
    for (const std::string& input : inputs)
      node.add_input(input);
    node.add_output(output);
    return node;
  };
  const auto constant = [&](const std::string& label, const std::vector<std::int64_t>& values) {
    onnx::TensorProto& tensor = *graph.add_initializer();
    tensor.set_name(prefix + label);
    tensor.set_data_type(onnx::TensorProto::INT64);
    tensor.add_dims(static_cast<std::int64_t>(values.size()));
    tensor.mutable_int64_data()->Assign(values.begin(), values.end());
    return tensor.name();
  };
  const auto concat = [&](const std::vector<std::string>& inputs, const std::string& output) {
    onnx::AttributeProto& axis = *add("Concat", inputs, output).add_attribute();
    axis.set_name("axis");
    axis.set_type(onnx::AttributeProto::INT);
    axis.set_i(0);
  };
  add("Shape", {name}, prefix + "/sizes");
  add("Shape", {prefix + "/sizes"}, prefix + "/rank");
  concat({prefix + "/rank", prefix + "/sizes",
          constant("/zeros", std::vector<std::int64_t>(mostRank))},
         prefix + "/padded");
  add("Slice", {prefix + "/padded", constant("/from", {0}), constant("/to", {1 + mostRank})},
      prefix);
  onnx::ValueInfoProto& output = *graph.add_output();
  output.set_name(prefix);
  output.mutable_type()->mutable_tensor_type()->set_elem_type(onnx::TensorProto::INT64);
  output.mutable_type()->mutable_tensor_type()->mutable_shape()->add_dim()->set_dim_value(1 +
                                                                                          mostRank);
}

/// The shapes of `names` in a run on zeros and the constants, free dimensions being `free`.
std::vector<std::vector<std::int64_t>> RunForShapes(Platform::Runtime& runtime,
                                                    const SourceModel& model,
                                                    const std::vector<std::string>& names,
                                                    const AdaptRequest& request,
                                                    std::int64_t free) {
  onnx::ModelProto proto = model.proto;
  for (const std::string& name : names)
    AddShapeOutput(*proto.mutable_graph(), name);
  std::vector<const SourceTensor*> bound;
  for (const SourceTensor& input : model.inputs) {
    const auto constant =
        std::ranges::find(request.constants, input.name, &NamePairs::value_type::first);
    if (constant == request.constants.end()) {
      bound.push_back(&input);
      continue;
    }
    *proto.mutable_graph()->add_initializer() = ConstantTensor(input, constant->second);
    auto& inputs = *proto.mutable_graph()->mutable_input();
    const auto place = std::ranges::find_if(
        inputs, [&](const auto& feature) { return feature.name() == input.name; });
    inputs.erase(place);
  }
  ModelRun run(runtime, proto.SerializeAsString());
  for (const SourceTensor* input : bound) {
    Platform::Shape shape;
    for (const SourceDimension& dimension : input->shape)
      shape.push_back(dimension.size > 0 ? dimension.size : free);
    run.Bind(Platform::Side::Input, input->name, shape, input->kind);
  }
  std::vector<std::size_t> places;
  places.reserve(names.size());
  for (const std::string& name : names)
    places.push_back(run.Bind(Platform::Side::Output, "shape/" + name, {1 + mostRank},
                              Platform::TensorKind::Int64));
  run.Restart();
  run.Evaluate();
  std::vector<std::vector<std::int64_t>> shapes;
  for (const std::size_t place : places) {
    const std::vector<std::int64_t> numbers = run.GetNumbers(place);
    const std::int64_t rank = std::min(numbers[0], mostRank);
    shapes.emplace_back(numbers.begin() + 1, numbers.begin() + 1 + rank);
  }
  return shapes;
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

onnx::ValueInfoProto FloatFeature(const std::string& name, const std::vector<std::int64_t>& shape) {
  onnx::ValueInfoProto feature;
  feature.set_name(name);
  auto& type = *feature.mutable_type()->mutable_tensor_type();
  type.set_elem_type(onnx::TensorProto::FLOAT);
  type.mutable_shape();
  for (const std::int64_t size : shape)
    type.mutable_shape()->add_dim()->set_dim_value(size);
  return feature;
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
  std::vector<std::string> names;
  for (SourceTensor& output : model.outputs) {
    if (!HasUnknownSize(output)) continue;
    unknown.push_back(&output);
    names.push_back(output.name);
  }
  if (unknown.empty()) return;
  std::vector<std::vector<std::int64_t>> one, two;
  try {
    one = RunForShapes(runtime, model, names, request, 1);
    if (std::ranges::any_of(model.inputs, HasUnknownSize))
      two = RunForShapes(runtime, model, names, request, 2);
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
  onnx::GraphProto& graph = *model.proto.mutable_graph();
  struct Found {
    onnx::NodeProto* node;
    int input;
    std::string name, result;
  };
  std::vector<Found> all;
  for (auto& node : *graph.mutable_node()) {
    const bool isLstm = node.op_type() == "LSTM";
    if (!isLstm && node.op_type() != "GRU" && node.op_type() != "RNN") continue;
    for (int k = 0; k < (isLstm ? 2 : 1); ++k) {
      const int input = 5 + k;
      if (node.input_size() > input && !node.input(input).empty() &&
          !IsZero(graph, node.input(input)))
        continue;
      if (RunsBackward(node))
        throw Refusal("the recurrent layer '" + node.name() +
                      "' also runs backward in time, so that its state cannot be carried on "
                      "(--carry-hidden)");
      const int place = 1 + k;  // of Y_h and Y_c
      while (node.output_size() <= place)
        node.add_output("");
      const std::string name = "hidden/" + std::to_string(request.states.size() + all.size());
      if (node.output(place).empty()) node.set_output(place, name + "/next");
      all.push_back({&node, input, name, node.output(place)});
    }
  }
  if (all.empty())
    throw Refusal("the model " + model.path +
                  " has no GRU, LSTM or RNN that starts at zero, as --carry-hidden says");
  std::vector<std::string> names;
  names.reserve(all.size());
  for (const Found& found : all)
    names.push_back(found.result);
  std::vector<std::vector<std::int64_t>> shapes;
  try {
    shapes = RunForShapes(runtime, model, names, request, 1);
  } catch (...) {
    throw Refusal("the sizes of the hidden states cannot be learnt by running the model: " +
                  TextOfCurrentException());
  }
  NamePairs pairs;
  for (std::size_t i = 0; i < all.size(); ++i) {
    Found& found = all[i];
    while (found.node->input_size() <= found.input)
      found.node->add_input("");
    found.node->set_input(found.input, found.name);
    *graph.add_input() = FloatFeature(found.name, shapes[i]);
    if (std::ranges::none_of(graph.output(),
                             [&](const auto& out) { return out.name() == found.result; }))
      *graph.add_output() = FloatFeature(found.result, shapes[i]);
    pairs.emplace_back(found.name, found.result);
  }
  // Outputs that were learnt stay so.
  const std::vector<SourceTensor> learnt = model.outputs;
  ReadFeatures(model);
  for (SourceTensor& output : model.outputs)
    for (const SourceTensor& known : learnt)
      if (known.name == output.name) output = known;
  return pairs;
}

onnx::TensorProto ConstantTensor(const SourceTensor& tensor, const std::string& number) {
  onnx::TensorProto constant;
  constant.set_name(tensor.name);
  constant.set_data_type(static_cast<std::int32_t>(tensor.kind));
  std::int64_t count = 1;
  for (const SourceDimension& dimension : tensor.shape) {
    const std::int64_t size = std::max<std::int64_t>(dimension.size, 1);
    constant.add_dims(size);
    count = size > (1 << 20) / count ? (1 << 20) + 1 : count * size;
  }
  if (count > 1 << 20)
    throw Refusal("the input " + SourceTensorText(tensor) + " is too large for --set");
  const double value = ParseNumber(number);
  for (std::int64_t i = 0; i < count; ++i) {
    switch (tensor.kind) {
    case Platform::TensorKind::Float:
      constant.add_float_data(static_cast<float>(value));
      break;
    case Platform::TensorKind::Double:
      constant.add_double_data(value);
      break;
    case Platform::TensorKind::Int64:
      constant.add_int64_data(static_cast<std::int64_t>(value));
      break;
    case Platform::TensorKind::Int32:
    case Platform::TensorKind::Boolean:
      constant.add_int32_data(static_cast<std::int32_t>(value));
      break;
    default:
      throw Refusal("the input " + SourceTensorText(tensor) +
                    " has a type that --set cannot write: float32, float64, int32, int64 and bool "
                    "can be");
    }
  }
  return constant;
}

}  // namespace Orvik::Tesmo::Tool
