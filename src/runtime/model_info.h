#pragma once

#include "platform/platform.h"
#include "runtime/metadata.h"
#include "runtime/window_shape.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Dnn {

/// Windows per evaluation where neither the host nor the model asks for a number.
inline constexpr std::uint64_t DefaultSequenceSize = 4;

/// What a model declares in its metadata, with the defaults of what it does not. Keeps nothing of
/// the model and never changes. Pointers and references live as long as the object.
class ModelInfo final {
public:
  /// Throws what the readers of metadata.h and window_shape.h throw.
  explicit ModelInfo(const Platform::Model& model);

  virtual const char16_t* GetName() const;
  /// The value as JSON, 48000 where it is missing. Hosts get the reading of FindMetadataDecimal.
  virtual std::int32_t GetSampleRate() const;
  /// The value as JSON, 0 where it is missing. The audio path uses the reading of
  /// FindMetadataDecimal.
  virtual std::int32_t GetLookaheadNumBlocks() const;
  /// Has no effect here: windows always overlap by one half.
  virtual std::int32_t GetOverlapInSamples() const;
  /// Windows per evaluation where the host names none; 0: no preference.
  virtual std::int32_t GetBaselineSequenceSize() const;
  /// At least 1.
  virtual std::uint32_t GetAudioClassCount() const;
  /// Zero-terminated. Throws ContractException where `id` is not below the count.
  virtual const char16_t* GetAudioClassName(std::uint32_t id) const;
  virtual const std::vector<ChannelBinding>& GetChannelBindings() const;
  /// nullopt: the model does not say, and the library's own windows hold.
  const std::optional<WindowShape>& GetWindowShape() const { return windowShape; }

private:
  std::u16string name;
  std::int32_t sampleRate;
  std::int32_t lookaheadNumBlocks;
  std::int32_t overlapInSamples;
  std::int32_t baselineSequenceSize;
  std::vector<std::u16string> audioClassNames;
  std::vector<ChannelBinding> channelBindings;
  std::optional<WindowShape> windowShape;
};

}  // namespace Orvik::Tesmo::Dnn
