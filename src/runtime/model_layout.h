#pragma once

// What the dimensions of a model's tensors mean. Input feature 0 is the audio that goes in, output
// feature 0 the audio that comes out, every further input feature a recurrent state. The meaning of
// a dimension follows from the number of dimensions alone.

#include "platform/platform.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Orvik::Tesmo::Dnn {

/// By dimensions of the input: 1 [Features], 2 [Sequence, Features],
/// 3 [Channels, Sequence, Features], 4 [Channels, Sequence, Features, Components].
enum class InputRole { Channels = 0, Sequence = 1, Features = 2, Components = 3 };

/// By dimensions of the output: 1 [Features], 2 [Sequence, Features],
/// 3 [Channels, Sequence, Features], 4 [Classes, Channels, Sequence, Features],
/// 5 [Classes, Channels, Sequence, Features, Components].
enum class OutputRole { Classes = 0, Channels = 1, Sequence = 2, Features = 3, Components = 4 };

inline constexpr std::size_t MaxInputDimensions = 4;
inline constexpr std::size_t MaxOutputDimensions = 5;

/// A declared dimension below 1 is free: the library settles it.
constexpr bool IsFree(std::int64_t dimension) {
  return dimension < 1;
}

/// A recurrent state as the model declares it.
struct StateFeature {
  Platform::Shape shape;
  std::uint32_t kind;  ///< a Platform::TensorKind number, unchecked
};

/// The declared tensors of one model. Never changes; copies are independent.
class ModelLayout final {
public:
  /// Reads the model. Throws ContractException on tensors that the audio path cannot serve
  /// (geometry_check.h), a platform failure where the model cannot be read.
  explicit ModelLayout(const Platform::Model& model);

  /// Samples of a window, or bins of one where the input has Components.
  virtual std::uint32_t GetFeatureSize() const;
  /// Samples of a window: the feature size, or for n bins the 2n - 2 samples of their spectrum.
  virtual std::uint32_t GetWindowLength() const;
  virtual std::uint32_t GetHopLength() const;
  /// The declared input shape with its free dimensions settled; `sequenceSize` counts the lookahead
  /// windows too. Throws ContractException where a fixed dimension differs.
  virtual Platform::Shape GetInputShape(std::uint32_t sequenceSize,
                                        std::uint32_t channelCount) const;
  /// Likewise of the output; free Features are as many as the input's.
  virtual Platform::Shape GetOutputShape(std::uint32_t sequenceSize, std::uint32_t channelCount,
                                         std::uint32_t classCount) const;
  /// The declared shape of a state with `fillValue` in every free dimension. `stateIndex` is below
  /// GetStateCount; state i is input feature i + 1.
  virtual Platform::Shape GetStateShape(std::size_t stateIndex, std::int64_t fillValue) const;
  virtual std::size_t GetStateCount() const;
  /// Values that make up one feature: the size of Components, 1 without that dimension.
  virtual std::int64_t GetInputComponents() const;
  virtual std::int64_t GetOutputComponents() const;

  /// The position of a role in the declared shape; -1 where the tensor has no such dimension.
  int GetInputDimension(InputRole role) const;
  int GetOutputDimension(OutputRole role) const;
  std::uint32_t GetStateTensorKind(std::size_t stateIndex) const;
  const Platform::Shape& GetDeclaredInputShape() const { return inputShape; }
  const Platform::Shape& GetDeclaredOutputShape() const { return outputShape; }

private:
  Platform::Shape inputShape;
  Platform::Shape outputShape;
  std::vector<StateFeature> states;
  std::uint32_t featureSize;
  std::uint32_t windowLength;
};

}  // namespace Orvik::Tesmo::Dnn
