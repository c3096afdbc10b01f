#include "platform/onnxruntime/model.h"

#include <algorithm>

namespace Orvik::Tesmo::Platform::OnnxRuntime {
namespace {

class Descriptor final : public FeatureDescriptor {
public:
  explicit Descriptor(std::shared_ptr<const Feature> feature) : feature(std::move(feature)) {}

  ResultCode GetName(std::u16string& name) const override {
    return Guarded([&] { name = feature->name; });
  }
  ResultCode GetKind(FeatureKind& kind) const override {
    kind = feature->kind;
    return ResultCodes::Ok;
  }
  ResultCode GetTensorKind(std::uint32_t& kind) const override {
    return Guarded([&] {
      RequireTensor();
      kind = feature->tensorKind;
    });
  }
  ResultCode GetShape(Shape& shape) const override {
    return Guarded([&] {
      RequireTensor();
      shape = feature->shape;
    });
  }

private:
  void RequireTensor() const {
    if (feature->kind != FeatureKind::Tensor)
      Refuse(ResultCodes::NoInterface, "the feature is not a tensor");
  }

  std::shared_ptr<const Feature> feature;
};

class Features final : public FeatureList {
public:
  Features(std::shared_ptr<const ParsedModel> model, Side side)
      : model(std::move(model)), side(side) {}

  ResultCode GetSize(std::uint32_t& size) const override {
    size = static_cast<std::uint32_t>(model->Features(side).size());
    return ResultCodes::Ok;
  }
  ResultCode GetAt(std::uint32_t index,
                   std::shared_ptr<FeatureDescriptor>& feature) const override {
    return Guarded([&] {
      const std::vector<Feature>& features = model->Features(side);
      if (index >= features.size())
        Refuse(ResultCodes::OutOfBounds, "the model has no feature of this number");
      feature =
          std::make_shared<Descriptor>(std::shared_ptr<const Feature>(model, &features[index]));
    });
  }

private:
  std::shared_ptr<const ParsedModel> model;
  Side side;
};

class Iterator final : public MetadataIterator {
public:
  explicit Iterator(std::shared_ptr<const ParsedModel> model) : model(std::move(model)) {}

  ResultCode HasCurrent(bool& has) const override {
    has = position < model->Metadata().size();
    return ResultCodes::Ok;
  }
  ResultCode Current(std::u16string& key, std::u16string& value) const override {
    return Guarded([&] {
      if (position >= model->Metadata().size())
        Refuse(ResultCodes::OutOfBounds, "the walk over the metadata has ended");
      std::tie(key, value) = model->Metadata()[position];
    });
  }
  ResultCode MoveNext() override {
    if (position < model->Metadata().size()) ++position;
    return ResultCodes::Ok;
  }

private:
  std::shared_ptr<const ParsedModel> model;
  std::size_t position = 0;
};

class Metadata final : public MetadataMap {
public:
  explicit Metadata(std::shared_ptr<const ParsedModel> model) : model(std::move(model)) {}

  ResultCode Lookup(std::u16string_view key, std::u16string& value) const override {
    return Guarded([&] {
      const auto& pairs = model->Metadata();
      const auto found = std::find_if(pairs.begin(), pairs.end(),
                                      [&](const auto& pair) { return pair.first == key; });
      if (found == pairs.end()) Refuse(ResultCodes::OutOfBounds, "");
      value = found->second;
    });
  }
  ResultCode First(std::shared_ptr<MetadataIterator>& iterator) const override {
    return Guarded([&] { iterator = std::make_shared<Iterator>(model); });
  }

private:
  std::shared_ptr<const ParsedModel> model;
};

}  // namespace

ResultCode Model::GetInputFeatures(std::shared_ptr<FeatureList>& features) const {
  return Guarded([&] { features = std::make_shared<Features>(parsed, Side::Input); });
}

ResultCode Model::GetOutputFeatures(std::shared_ptr<FeatureList>& features) const {
  return Guarded([&] { features = std::make_shared<Features>(parsed, Side::Output); });
}

ResultCode Model::GetMetadata(std::shared_ptr<MetadataMap>& metadata) const {
  return Guarded([&] { metadata = std::make_shared<Metadata>(parsed); });
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
