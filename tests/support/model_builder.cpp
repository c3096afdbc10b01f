#include "support/model_builder.h"

#include <onnx/onnx_pb.h>

namespace TestSupport {
namespace {

constexpr const char* machineLearningDomain = "ai.onnx.ml";

void Declare(onnx::ValueInfoProto& feature, const std::string& name, Element element,
             const Dimensions& shape, Declared as) {
  feature.set_name(name);
  onnx::TypeProto& type = *feature.mutable_type();
  auto& tensor = as == Declared::Sequence
                     ? *type.mutable_sequence_type()->mutable_elem_type()->mutable_tensor_type()
                     : *type.mutable_tensor_type();
  tensor.set_elem_type(static_cast<std::int32_t>(element));
  if (as != Declared::Tensor) return;
  onnx::TensorShapeProto& declared = *tensor.mutable_shape();
  for (const Dimension& dimension : shape) {
    onnx::TensorShapeProto::Dimension& added = *declared.add_dim();
    if (dimension.isFixed)
      added.set_dim_value(dimension.value);
    else if (!dimension.symbol.empty())
      added.set_dim_param(dimension.symbol);
  }
}

onnx::TensorProto& AddInitializer(onnx::ModelProto& model, const std::string& name, Element element,
                                  const std::vector<std::int64_t>& shape) {
  onnx::TensorProto& tensor = *model.mutable_graph()->add_initializer();
  tensor.set_name(name);
  tensor.set_data_type(static_cast<std::int32_t>(element));
  tensor.mutable_dims()->Assign(shape.begin(), shape.end());
  return tensor;
}

/// Gives the attribute its value and the type of it.
struct SetValue {
  using Proto = onnx::AttributeProto;

  void operator()(std::int64_t value) const {
    attribute.set_type(Proto::INT);
    attribute.set_i(value);
  }
  void operator()(float value) const {
    attribute.set_type(Proto::FLOAT);
    attribute.set_f(value);
  }
  void operator()(const std::vector<std::int64_t>& values) const {
    attribute.set_type(Proto::INTS);
    attribute.mutable_ints()->Assign(values.begin(), values.end());
  }
  void operator()(const std::vector<float>& values) const {
    attribute.set_type(Proto::FLOATS);
    attribute.mutable_floats()->Assign(values.begin(), values.end());
  }
  void operator()(const std::vector<std::string>& values) const {
    attribute.set_type(Proto::STRINGS);
    attribute.mutable_strings()->Assign(values.begin(), values.end());
  }

  Proto& attribute;
};

}  // namespace

ModelBuilder::ModelBuilder() : model(std::make_shared<onnx::ModelProto>()) {
  model->set_ir_version(8);
  model->add_opset_import()->set_version(17);
  model->mutable_graph()->set_name("test");
}

ModelBuilder& ModelBuilder::Input(const std::string& name, Element element, const Dimensions& shape,
                                  Declared as) {
  Declare(*model->mutable_graph()->add_input(), name, element, shape, as);
  return *this;
}

ModelBuilder& ModelBuilder::Output(const std::string& name, Element element,
                                   const Dimensions& shape, Declared as) {
  Declare(*model->mutable_graph()->add_output(), name, element, shape, as);
  return *this;
}

ModelBuilder& ModelBuilder::Node(const std::string& operation,
                                 const std::vector<std::string>& inputs,
                                 const std::vector<std::string>& outputs,
                                 const std::vector<Attribute>& attributes,
                                 const std::string& domain) {
  onnx::NodeProto& node = *model->mutable_graph()->add_node();
  node.set_op_type(operation);
  node.set_domain(domain);
  for (const std::string& name : inputs)
    node.add_input(name);
  for (const std::string& name : outputs)
    node.add_output(name);
  for (const auto& [attributeName, value] : attributes) {
    onnx::AttributeProto& attribute = *node.add_attribute();
    attribute.set_name(attributeName);
    std::visit(SetValue{attribute}, value);
  }
  if (domain == machineLearningDomain && model->opset_import_size() == 1) {
    onnx::OperatorSetIdProto& imported = *model->add_opset_import();
    imported.set_domain(machineLearningDomain);
    imported.set_version(2);
  }
  return *this;
}

ModelBuilder& ModelBuilder::Floats(const std::string& name, const std::vector<std::int64_t>& shape,
                                   const std::vector<float>& values) {
  AddInitializer(*model, name, Element::Float, shape)
      .mutable_float_data()
      ->Assign(values.begin(), values.end());
  return *this;
}

ModelBuilder& ModelBuilder::FloatsElsewhere(const std::string& name,
                                            const std::vector<std::int64_t>& shape,
                                            const std::string& location, std::int64_t offset) {
  onnx::TensorProto& tensor = AddInitializer(*model, name, Element::Float, shape);
  tensor.set_data_location(onnx::TensorProto::EXTERNAL);
  for (const auto& [key, value] :
       {std::pair("location", location), std::pair("offset", std::to_string(offset))}) {
    onnx::StringStringEntryProto& entry = *tensor.add_external_data();
    entry.set_key(key);
    entry.set_value(value);
  }
  return *this;
}

ModelBuilder& ModelBuilder::Int64s(const std::string& name, const std::vector<std::int64_t>& shape,
                                   const std::vector<std::int64_t>& values) {
  AddInitializer(*model, name, Element::Int64, shape)
      .mutable_int64_data()
      ->Assign(values.begin(), values.end());
  return *this;
}

ModelBuilder& ModelBuilder::Strings(const std::string& name, const std::vector<std::int64_t>& shape,
                                    const std::vector<std::string>& values) {
  onnx::TensorProto& tensor = AddInitializer(*model, name, Element::String, shape);
  for (const std::string& value : values)
    tensor.add_string_data(value);
  return *this;
}

ModelBuilder& ModelBuilder::Metadata(const std::string& key, const std::string& value) {
  onnx::StringStringEntryProto& entry = *model->add_metadata_props();
  entry.set_key(key);
  entry.set_value(value);
  return *this;
}

ModelBuilder& ModelBuilder::OpsetVersion(std::int64_t version) {
  model->mutable_opset_import(0)->set_version(version);
  return *this;
}

std::string ModelBuilder::Build() const {
  return model->SerializeAsString();
}

}  // namespace TestSupport
