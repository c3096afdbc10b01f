#pragma once

#include "platform/onnxruntime/parsed_model.h"
#include "platform/platform.h"

#include <memory>
#include <utility>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

class Model final : public Platform::Model {
public:
  explicit Model(std::shared_ptr<const ParsedModel> parsed) : parsed(std::move(parsed)) {}

  ResultCode GetInputFeatures(std::shared_ptr<FeatureList>& features) const override;
  ResultCode GetOutputFeatures(std::shared_ptr<FeatureList>& features) const override;
  ResultCode GetMetadata(std::shared_ptr<MetadataMap>& metadata) const override;

  const std::shared_ptr<const ParsedModel>& Parsed() const { return parsed; }

private:
  std::shared_ptr<const ParsedModel> parsed;
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
