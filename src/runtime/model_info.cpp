#include "runtime/model_info.h"

#include "failure/exceptions.h"

namespace Orvik::Tesmo::Dnn {

ModelInfo::ModelInfo(const Platform::Model& model)
    : name(ReadMetadataString(model, u"Name", u"(Model name N/A)")),
      sampleRate(ReadMetadataInt(model, u"SampleRate", 48000)),
      lookaheadNumBlocks(ReadMetadataInt(model, u"LookaheadNumBlocks", 0)),
      overlapInSamples(ReadMetadataInt(model, u"OverlapInSamples", 0)),
      baselineSequenceSize(ReadMetadataInt(model, u"BaselineSequenceSize", 0)),
      audioClassNames(ReadAudioClassNames(model)), channelBindings(ReadChannelBindings(model)),
      windowShape(ReadWindowShape(model)) {}

const char16_t* ModelInfo::GetName() const {
  return name.c_str();
}
std::int32_t ModelInfo::GetSampleRate() const {
  return sampleRate;
}
std::int32_t ModelInfo::GetLookaheadNumBlocks() const {
  return lookaheadNumBlocks;
}
std::int32_t ModelInfo::GetOverlapInSamples() const {
  return overlapInSamples;
}
std::int32_t ModelInfo::GetBaselineSequenceSize() const {
  return baselineSequenceSize;
}

std::uint32_t ModelInfo::GetAudioClassCount() const {
  return static_cast<std::uint32_t>(audioClassNames.size());
}

const char16_t* ModelInfo::GetAudioClassName(std::uint32_t id) const {
  if (id >= audioClassNames.size()) throw ContractException(RefusalReason::ClassIdOfInfoOutOfRange);
  return audioClassNames[id].c_str();
}

const std::vector<ChannelBinding>& ModelInfo::GetChannelBindings() const {
  return channelBindings;
}

}  // namespace Orvik::Tesmo::Dnn
