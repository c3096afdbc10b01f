#pragma once

// Named audio classes with linear gains. Ids are local to a set, from 0 to GetCount() - 1.
//
// Threads: gains may be read while another thread sets them; each is one plain 32-bit store, with
// no order promised between gains. Nothing else changes after construction.

#include "runtime/model_info.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Orvik::Tesmo::Dnn {

// A gain is a plain float; these are the accesses that may meet another thread's.
inline float LoadGain(const float& gain) {
  // reads only; a reference to a constant cannot be made before C++26
  return std::atomic_ref(const_cast<float&>(gain)).load(std::memory_order_relaxed);
}
inline void StoreGain(float& gain, float value) {
  std::atomic_ref(gain).store(value, std::memory_order_relaxed);
}

/// Every operation that takes an id throws ContractException where it is not below the count.
class AudioClassSet {
public:
  virtual std::uint32_t GetCount() const = 0;
  /// Zero-terminated, owned by the set.
  virtual const char16_t* GetName(std::uint32_t id) const = 0;
  virtual float GetGain(std::uint32_t id) const = 0;
  /// Throws ContractException for a gain below 0. Takes NaN.
  virtual void SetGain(std::uint32_t id, float gain) = 0;

protected:
  ~AudioClassSet() = default;
};

/// One class, at gain 1.
class SingleAudioClass final : public AudioClassSet {
public:
  explicit SingleAudioClass(std::u16string name) : name(std::move(name)) {}
  std::uint32_t GetCount() const override;
  const char16_t* GetName(std::uint32_t id) const override;
  float GetGain(std::uint32_t id) const override;
  void SetGain(std::uint32_t id, float gain) override;

private:
  std::u16string name;
  float gain = 1.0F;
};

/// The classes that a model extracts, at gain 1; the id is the index on its output's class axis.
class AudioClassList final : public AudioClassSet {
public:
  explicit AudioClassList(const ModelInfo& info);
  std::uint32_t GetCount() const override;
  const char16_t* GetName(std::uint32_t id) const override;
  float GetGain(std::uint32_t id) const override;
  void SetGain(std::uint32_t id, float gain) override;

private:
  std::uint32_t count;
  std::vector<std::u16string> names;
  std::unique_ptr<float[]> gains;
};

/// A class inside a set that belongs to someone else.
struct AudioClassRef {
  AudioClassSet* set;
  std::uint32_t id;
};

/// Sets seen as one. The members outlive it and keep their counts.
class CompositeAudioClassSet : public AudioClassSet {
public:
  std::uint32_t GetCount() const final;
  const char16_t* GetName(std::uint32_t id) const final;
  float GetGain(std::uint32_t id) const final;
  void SetGain(std::uint32_t id, float gain) final;
  virtual AudioClassRef LocateClass(std::uint32_t id) const = 0;

protected:
  explicit CompositeAudioClassSet(std::vector<AudioClassSet*> members);
  ~CompositeAudioClassSet() = default;

  std::vector<AudioClassSet*> members;

private:
  std::uint32_t totalCount;
};

/// The members' ids one after the other.
class ConcatenatedAudioClassSet final : public CompositeAudioClassSet {
public:
  explicit ConcatenatedAudioClassSet(std::vector<AudioClassSet*> members)
      : CompositeAudioClassSet(std::move(members)) {}
  AudioClassRef LocateClass(std::uint32_t id) const override;
};

/// The lowest id in `classes` with this name, letters A to Z in either case; -1 where there is none
/// or `name` is null.
std::int32_t FindAudioClass(const AudioClassSet& classes, const char16_t* name);

}  // namespace Orvik::Tesmo::Dnn
