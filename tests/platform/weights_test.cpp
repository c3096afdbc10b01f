#include "platform/onnxruntime/weights.h"

#include "platform/onnxruntime/failure.h"

#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <map>

namespace {

using namespace Orvik::Tesmo::Platform::OnnxRuntime;

constexpr std::int64_t bigSize = 500;

void AddConstant(onnx::GraphProto& graph, const std::string& name, std::int64_t size, char fill) {
  onnx::TensorProto& tensor = *graph.add_initializer();
  tensor.set_name(name);
  tensor.set_data_type(onnx::TensorProto::FLOAT);
  tensor.add_dims(2);
  tensor.add_dims(size / 2);
  tensor.set_raw_data(std::string(static_cast<std::size_t>(size) * 4, fill));
}

/// A graph with a body, in which "twice" stands for something else; "listed" is an input too, and
/// "made" is what a node makes.
onnx::ModelProto MakeModel() {
  onnx::ModelProto model;
  model.set_ir_version(8);
  model.set_producer_name("test");
  onnx::GraphProto& graph = *model.mutable_graph();
  graph.add_input()->set_name("listed");
  graph.add_output()->set_name("output");
  onnx::NodeProto& loop = *graph.add_node();
  loop.set_op_type("Loop");
  loop.add_output("made");
  onnx::AttributeProto& body = *loop.add_attribute();
  body.set_name("body");
  body.set_type(onnx::AttributeProto::GRAPH);
  AddConstant(graph, "big", bigSize, 'a');
  AddConstant(graph, "small", 4, 'b');
  AddConstant(graph, "twice", bigSize, 'c');
  AddConstant(graph, "listed", bigSize, 'd');
  AddConstant(*body.mutable_g(), "twice", bigSize, 'e');
  AddConstant(*body.mutable_g(), "inner", bigSize, 'f');
  AddConstant(*body.mutable_g(), "made", bigSize, 'g');
  return model;
}

TEST(Weights, AreTheLargeConstantsWhoseNameIsTheirsAlone) {
  const Weights weights(MakeModel().SerializeAsString());
  std::map<std::string, char> found;
  for (const Weight& weight : weights.All()) {
    EXPECT_EQ(weight.element, 1);
    EXPECT_EQ(weight.shape, (Orvik::Tesmo::Platform::Shape{2, bigSize / 2}));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(weight.data) % 64, 0U);
    const std::string_view data(static_cast<const char*>(weight.data), weight.bytes);
    EXPECT_EQ(data, std::string(bigSize * 4, data[0]));
    found[weight.name] = data[0];
  }
  EXPECT_EQ(found, (std::map<std::string, char>{{"big", 'a'}, {"inner", 'f'}}));
}

TEST(Weights, RefuseBytesThatEndTooEarly) {
  const std::string bytes = MakeModel().SerializeAsString();
  int refused = 0;
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    try {
      const Weights weights(std::string_view(bytes).substr(0, size));
    } catch (const Failure&) {
      ++refused;
    }
  }
  EXPECT_GT(refused, static_cast<int>(bytes.size()) - 50);  // whole fields are a model
}

}  // namespace
