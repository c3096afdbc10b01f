#pragma once

// Everything that has the size of one geometry: the tensors of a model and the buffers around it.
// W, S, C, L are the sizes of processing_geometry.h, K the audio classes, F the bins of a spectrum.

#include "platform/platform.h"
#include "runtime/float_array.h"
#include "runtime/model_layout.h"
#include "runtime/processing_geometry.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Dnn {

/// Floats of several channels in one block, all zero at first. Move-only.
struct PlanarBuffer {
  PlanarBuffer() = default;
  /// Throws as MakeFloatArray, except that a size of 0 is allowed.
  PlanarBuffer(std::uint64_t channelCount, std::uint64_t channelLength);

  std::uint64_t channelCount = 0;
  std::uint64_t channelLength = 0;
  FloatArray data;                     ///< channel after channel; null where there is no float
  std::unique_ptr<float*[]> channels;  ///< the start of each channel; null likewise
};

/// One recurrent state: a tensor that the model reads under one name and writes under another.
struct RecurrentBinding {
  std::shared_ptr<Platform::Tensor> tensor;
  std::u16string inputName;
  std::u16string outputName;
};

/// The concrete shapes of the two audio tensors.
struct AudioShapes {
  Platform::Shape input, output;
};

/// The shapes that the model has at a geometry; takes no memory for tensors or buffers. Throws
/// ContractException where the geometry does not fit the model or is out of range
/// (geometry_check.h), std::bad_alloc.
AudioShapes ShapesAt(const ProcessingGeometry& geometry, const ModelLayout& layout,
                     std::uint32_t classCount);

/// The tensors and buffers of one geometry, all zero at first. Move-only.
///
/// Floats in the tensors, outermost first, no gaps; the parts in brackets are those of a model on
/// spectra in place of the W samples:
///   input   C x (S + L) x W [F x 2]
///   output  K x C x S x W   [F x 2]
struct ModelBinding {
  /// Holds nothing.
  ModelBinding() = default;
  /// `model` and `layout` are used during the call only. Throws as ShapesAt, WinML::CException
  /// where inputs and outputs do not pair up as states or a state is of an unusable kind, and the
  /// platform's failures.
  ModelBinding(Platform::Runtime& runtime, const Platform::Model& model, const ModelLayout& layout,
               std::uint32_t classCount, const ProcessingGeometry& geometry);

  AudioShapes shapes;
  std::shared_ptr<Platform::Tensor> inputTensor;   ///< of the feature "input"
  std::shared_ptr<Platform::Tensor> outputTensor;  ///< of the feature "output"
  PlanarBuffer workBuffer;                         ///< C x W * S: the mix that goes out
  PlanarBuffer historyBuffer;      ///< C x (S + L) * W: the L windows kept, then the S new ones
  std::vector<float*> newWindows;  ///< C: where the new ones begin in `historyBuffer`
  PlanarBuffer classBuffer;        ///< C x W * S: one extracted class
  std::vector<RecurrentBinding> recurrent;  ///< input feature i and output feature i, from 1 on
};

/// Binds every tensor of `tensors` and brings them into force. All of them are zero afterwards.
/// Throws the platform's failures; `binding` is then unusable until a call succeeds.
void BindTensors(Platform::Binding& binding, const ModelBinding& tensors);

}  // namespace Orvik::Tesmo::Dnn
