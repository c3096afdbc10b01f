#pragma once

#include "adapt/adapt.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// Adds operators to one graph of a model. Every operation returns the name of its result. Graphs
/// within graphs share the names, since an inner one sees those of the outer.
class GraphWriter {
public:
  /// `prefix`: of the names of results.
  GraphWriter(onnx::GraphProto& graph, int opset, std::string prefix = "adapted/");
  /// Of a graph inside the one of `outer`.
  GraphWriter(onnx::GraphProto& graph, const GraphWriter& outer);

  onnx::GraphProto& Graph() { return graph; }
  std::string FreshName();

  std::string Identity(const std::string& x);
  std::string Transpose(const std::string& x, const std::vector<std::int64_t>& order);
  std::string Unsqueeze(const std::string& x, const std::vector<std::int64_t>& axes);
  std::string Squeeze(const std::string& x, const std::vector<std::int64_t>& axes);
  std::string Concat(const std::vector<std::string>& all, std::int64_t axis);
  std::string Reshape(const std::string& x, const std::vector<std::int64_t>& shape);
  /// An operator without attributes: "Add", "MatMul", "Sqrt".
  std::string Apply(const std::string& type, const std::vector<std::string>& inputs);
  /// A constant.
  std::string Floats(const std::vector<double>& values,
                     const std::vector<std::int64_t>& shape = {});
  std::string Constant(onnx::TensorProto tensor);
  std::string Int64s(const std::vector<std::int64_t>& values, bool isScalar = false);
  /// Elements `from` to `to`, without it, along `axis`.
  std::string Slice(const std::string& x, std::int64_t axis, std::int64_t from, std::int64_t to);
  /// One element along `axis`, which goes.
  std::string Take(const std::string& x, std::int64_t axis, std::int64_t index);
  /// The elements at `places` along `axis`.
  std::string Gather(const std::string& x, std::int64_t axis,
                     const std::vector<std::int64_t>& places);
  /// All but the first `count` along `axis`.
  std::string DropFirst(const std::string& x, std::int64_t axis, std::int64_t count);
  /// The sums along `axis`, which goes.
  std::string Sum(const std::string& x, std::int64_t axis);
  /// A second name, `name`, for x.
  void Alias(const std::string& x, const std::string& name);

  onnx::NodeProto& Node(const std::string& type, const std::vector<std::string>& inputs);
  static void SetInt(onnx::NodeProto& node, const char* attribute, std::int64_t value);
  static void SetInts(onnx::NodeProto& node, const char* attribute,
                      const std::vector<std::int64_t>& values);
  /// An input or output of the graph; without a shape where none is given.
  static void Declare(onnx::ValueInfoProto& feature, const std::string& name, std::uint32_t kind);

private:
  std::string Result(onnx::NodeProto& node);
  /// Squeeze, Unsqueeze, ReduceSum: axes are an attribute before opset 13.
  std::string WithAxes(const char* type, const std::string& x,
                       const std::vector<std::int64_t>& axes);

  onnx::GraphProto& graph;
  int opset;
  std::string prefix;
  std::shared_ptr<int> names;
};

/// The graph of `source` with `prefix` in front of every value's name, so that no name is there
/// twice.
onnx::GraphProto Prefixed(const SourceModel& source, const std::string& prefix);

/// What goes into a loop's turn, or comes out of it or of a part. The audio has the axes that its
/// user says, letters as in a Layout; what comes out has a first one, the classes.
struct PartValues {
  std::string audio;
  std::vector<std::string> states;
};

/// What goes into one AudioInput, with its axes.
struct FedAudio {
  std::string audio, axes;
};

/// Writes `part`, a graph with `prefix`, into `graph`: brings the audio into the layouts that it
/// takes and what it returns out of its layout. `fed`: one for each of roles.inputs.
PartValues WritePart(GraphWriter& graph, const onnx::GraphProto& part, const std::string& prefix,
                     const Roles& roles, const std::vector<FedAudio>& fed,
                     const std::vector<std::string>& states, const std::string& outAxes);

/// Shape of an input or output; 0 is a free dimension, named by the next of `symbols`.
void DeclareShape(onnx::ValueInfoProto& feature, const std::vector<std::int64_t>& shape,
                  const std::vector<const char*>& symbols);

}  // namespace Orvik::Tesmo::Tool
