#pragma once
// (interface agreed between stream and core; the core's author completes it)
#include "platform/platform.h"
#include <cstdint>
namespace Orvik::Tesmo::Dnn {
class Kalvrin {
public:
  Kalvrin(Platform::Runtime& runtime, const void* modelData, std::uint64_t modelSize,
          std::uint64_t sequenceSize, std::uint64_t channelCount);
  virtual ~Kalvrin();
  void EvaluateWindow(const float* input, float* output);
  std::uint64_t GetSequenceSize() const;
  std::uint32_t GetHopLength() const;
  std::int32_t IsSpectral() const;
  std::int32_t GetSampleRate() const;
  bool SetMasterGain(float gain);
  void ResetGains();
  bool SetAudioClassGain(const char16_t* name, float gain);
  bool SetChannelCount(std::uint64_t count);
  bool SetSequenceSize(std::uint64_t size);
};
}  // namespace Orvik::Tesmo::Dnn
