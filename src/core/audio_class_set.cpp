#include "core/audio_class_set.h"

#include "failure/exceptions.h"
#include "failure/sections.h"
#include "runtime/text.h"

namespace Orvik::Tesmo::Dnn {

namespace {

RT_CODE void CheckId(std::uint32_t id, std::uint32_t count) {
  if (id >= count) throw ContractException(RefusalReason::ClassIdOutOfRange);
}

RT_CODE void CheckGain(float gain) {
  if (gain < 0.0F) throw ContractException(RefusalReason::GainOutOfRange);
}

}  // namespace

RT_CODE std::uint32_t SingleAudioClass::GetCount() const {
  return 1;
}

RT_CODE const char16_t* SingleAudioClass::GetName(std::uint32_t id) const {
  CheckId(id, 1);
  return name.c_str();
}

RT_CODE float SingleAudioClass::GetGain(std::uint32_t id) const {
  CheckId(id, 1);
  return LoadGain(gain);
}

RT_CODE void SingleAudioClass::SetGain(std::uint32_t id, float newGain) {
  CheckId(id, 1);
  CheckGain(newGain);
  StoreGain(gain, newGain);
}

AudioClassList::AudioClassList(const ModelInfo& info)
    : count(info.GetAudioClassCount()), gains(std::make_unique<float[]>(count)) {
  names.reserve(count);
  for (std::uint32_t id = 0; id < count; ++id) {
    names.emplace_back(info.GetAudioClassName(id));
    gains[id] = 1.0F;
  }
}

RT_CODE std::uint32_t AudioClassList::GetCount() const {
  return count;
}

RT_CODE const char16_t* AudioClassList::GetName(std::uint32_t id) const {
  CheckId(id, count);
  return names[id].c_str();
}

RT_CODE float AudioClassList::GetGain(std::uint32_t id) const {
  CheckId(id, count);
  return LoadGain(gains[id]);
}

RT_CODE void AudioClassList::SetGain(std::uint32_t id, float newGain) {
  CheckId(id, count);
  CheckGain(newGain);
  StoreGain(gains[id], newGain);
}

CompositeAudioClassSet::CompositeAudioClassSet(std::vector<AudioClassSet*> members)
    : members(std::move(members)), totalCount(0) {
  for (const AudioClassSet* member : this->members)
    totalCount += member->GetCount();
}

RT_CODE std::uint32_t CompositeAudioClassSet::GetCount() const {
  return totalCount;
}

RT_CODE const char16_t* CompositeAudioClassSet::GetName(std::uint32_t id) const {
  const AudioClassRef located = LocateClass(id);
  return located.set->GetName(located.id);
}

RT_CODE float CompositeAudioClassSet::GetGain(std::uint32_t id) const {
  const AudioClassRef located = LocateClass(id);
  return located.set->GetGain(located.id);
}

RT_CODE void CompositeAudioClassSet::SetGain(std::uint32_t id, float gain) {
  const AudioClassRef located = LocateClass(id);
  located.set->SetGain(located.id, gain);
}

RT_CODE AudioClassRef ConcatenatedAudioClassSet::LocateClass(std::uint32_t id) const {
  std::uint32_t local = id;
  for (AudioClassSet* member : members) {
    const std::uint32_t memberCount = member->GetCount();
    if (local < memberCount) return {member, local};
    local -= memberCount;
  }
  throw ContractException(RefusalReason::ClassIdOutOfRange);
}

RT_CODE std::int32_t FindAudioClass(const AudioClassSet& classes, const char16_t* name) {
  if (!name) return -1;
  const std::uint32_t count = classes.GetCount();
  for (std::uint32_t id = 0; id < count; ++id) {
    if (EqualIgnoringCase(classes.GetName(id), name)) return static_cast<std::int32_t>(id);
  }
  return -1;
}

}  // namespace Orvik::Tesmo::Dnn
