#include "hosting/full_band_stream.h"

#include "runtime/text.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace Orvik::Tesmo::Hosting {
namespace {

Description SizesOf(const Diagnosis::ModelFacts& facts, const Diagnosis::StreamRequest& settled) {
  Description sizes;
  sizes.sampleRateHz = static_cast<std::uint32_t>(std::max(facts.sampleRateHz, 0));
  sizes.windowLength = facts.layout.GetWindowLength();
  sizes.lookaheadBlocks = static_cast<std::uint64_t>(facts.lookahead);
  sizes.sequenceSize = settled.sequenceSize;
  return sizes;
}

std::vector<std::u16string> NamesOf(const Dnn::ModelInfo& info) {
  std::vector<std::u16string> names;
  for (std::uint32_t id = 0; id < info.GetAudioClassCount(); ++id)
    names.emplace_back(info.GetAudioClassName(id));
  names.emplace_back(u"Rest");
  return names;
}

}  // namespace

FullBandStream::FullBandStream(const Diagnosis::ModelFacts& facts,
                               const Diagnosis::StreamRequest& settled, double rateHz,
                               std::unique_ptr<StreamProcessor> inner)
    : sequenceSize(settled.sequenceSize), channelCount(settled.channelCount),
      names(NamesOf(facts.info)), gains(names.size()),
      stage(SizesOf(facts, settled), std::move(inner), settled.channelCount, rateHz, false) {}

bool FullBandStream::SetMasterGain(float gain) {
  const bool isSet = Inner().SetMasterGain(gain);
  if (isSet) masterGain.store(gain, std::memory_order_relaxed);
  return isSet;
}

void FullBandStream::ResetGains() {
  Inner().ResetGains();
  for (std::atomic<float>& gain : gains)
    gain.store(1, std::memory_order_relaxed);
  masterGain.store(1, std::memory_order_relaxed);
}

bool FullBandStream::SetAudioClassGain(const char16_t* name, float gain) {
  if (!Inner().SetAudioClassGain(name, gain)) return false;
  const auto known = std::ranges::find_if(names, [name](const std::u16string& candidate) {
    return Dnn::EqualIgnoringCase(candidate.c_str(), name);
  });
  gains[static_cast<std::size_t>(known - names.begin())].store(gain, std::memory_order_relaxed);
  return true;
}

void FullBandStream::SetSequenceSize(std::uint64_t size) {
  if (size != sequenceSize) return;
  stage.Model().Restart(Mode::Direct);
  stage.Begin();
}

void FullBandStream::SetChannelCount(std::uint64_t count) {
  if (count == channelCount) SetSequenceSize(sequenceSize);
}

MixGains FullBandStream::Gains() const {
  const float master = masterGain.load(std::memory_order_relaxed);
  const float rest = master * gains.back().load(std::memory_order_relaxed);
  MixGains mix{rest, rest, rest};
  for (const std::atomic<float>& gain : gains) {
    const float of = master * gain.load(std::memory_order_relaxed);
    mix.least = std::min(mix.least, of);
    mix.greatest = std::max(mix.greatest, of);
  }
  return mix;
}

void FullBandStream::ProcessBlock(const float* const* input, float* const* output,
                                  std::uint64_t frames, std::int32_t /*continuation*/) {
  stage.Model().SetDryGains(Gains(), highBand.load(std::memory_order_relaxed));
  for (std::uint64_t done = 0; done < frames;) {
    const auto n =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(frames - done, HostStage::sliceFrames));
    stage.Process(input, done, n, 0);
    for (std::uint64_t c = 0; c < channelCount; ++c)
      std::copy_n(stage.Wet()[c], n, output[c] + done);
    done += n;
  }
  if (const auto failure = stage.Model().GetEvaluation().TakeFailure())
    std::rethrow_exception(failure);
}

}  // namespace Orvik::Tesmo::Hosting
