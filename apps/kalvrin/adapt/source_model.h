#pragma once

// A model of someone else's, as its file declares it.

#include "model/model.h"

#include <onnx/onnx_pb.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

struct SourceDimension {
  std::int64_t size = 0;  ///< 0: free
  std::string symbol;     ///< of a free one; may be empty
};

/// A tensor that goes in or out.
struct SourceTensor {
  std::string name;
  std::uint32_t kind = 0;  ///< a Platform::TensorKind
  bool hasShape = false;
  std::vector<SourceDimension> shape;
};

struct SourceModel {
  std::string path;
  onnx::ModelProto proto;
  int opset = 0;                     ///< of ONNX's own operators
  std::vector<SourceTensor> inputs;  ///< without those that have a default value
  std::vector<SourceTensor> outputs;
};

/// Refusal for what is no ONNX model, keeps weights in other files, has another opset than 11 to
/// 21, or inputs or outputs that are no tensors.
SourceModel ReadSourceModel(const ModelFile& file);

/// "'mix' float32 [1, 257, *, 2]"
std::string SourceTensorText(const SourceTensor& tensor);

}  // namespace Orvik::Tesmo::Tool
