#pragma once

#include <onnx/onnx_pb.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// Adds operators to one graph of a model. Every operation gives the name of its result. Graphs
/// within graphs share the names, since an inner one sees those of the outer.
class GraphWriter {
public:
  GraphWriter(onnx::GraphProto& graph, int opset);
  /// Of a graph inside the one of `outer`.
  GraphWriter(onnx::GraphProto& graph, const GraphWriter& outer);

  onnx::GraphProto& Graph() { return graph; }
  std::string FreshName();

  std::string Identity(const std::string& x);
  std::string Transpose(const std::string& x, const std::vector<std::int64_t>& order);
  std::string Unsqueeze(const std::string& x, const std::vector<std::int64_t>& axes);
  std::string Squeeze(const std::string& x, const std::vector<std::int64_t>& axes);
  std::string Concat(const std::vector<std::string>& all, std::int64_t axis);
  /// One element along `axis`, which goes.
  std::string Take(const std::string& x, std::int64_t axis, std::int64_t index);
  /// All but the first `count` along `axis`.
  std::string DropFirst(const std::string& x, std::int64_t axis, std::int64_t count);
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
  std::string Int64s(const std::vector<std::int64_t>& values, bool isScalar = false);
  /// Squeeze and Unsqueeze: axes are an attribute before opset 13.
  std::string WithAxes(const char* type, const std::string& x,
                       const std::vector<std::int64_t>& axes);

  onnx::GraphProto& graph;
  int opset;
  std::shared_ptr<int> names;
};

}  // namespace Orvik::Tesmo::Tool
