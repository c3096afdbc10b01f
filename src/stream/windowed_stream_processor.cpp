#include "stream/windowed_stream_processor.h"

#include "failure/sections.h"
#include "primitives/signal_primitives.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Orvik::Tesmo {

WindowedStreamProcessor::WindowedStreamProcessor(std::unique_ptr<Dnn::Kalvrin> core,
                                                 std::unique_ptr<OverlapAddStage> overlapAdd,
                                                 std::uint64_t sequenceSize,
                                                 std::uint64_t channelCount,
                                                 std::uint64_t blockFrames)
    : sequenceSize(sequenceSize), channelCount(channelCount), blockFrames(blockFrames),
      core(std::move(core)), overlapAdd(std::move(overlapAdd)),
      sampleRate(this->core->GetSampleRate()), readCursor(0), writeCursor(0),
      arrays(MakeArrays(sequenceSize, channelCount)) {
  LineUpCursors();
}

WindowedStreamProcessor::~WindowedStreamProcessor() = default;

std::uint64_t WindowedStreamProcessor::CapacityFrames() const {
  return core->GetHopLength() * sequenceSize;
}

RT_CODE void WindowedStreamProcessor::LineUpCursors() {
  readCursor = PrefillFrames(CapacityFrames(), blockFrames);
  writeCursor = 0;
}

WindowedStreamProcessor::Arrays
WindowedStreamProcessor::MakeArrays(std::uint64_t newSequenceSize,
                                    std::uint64_t newChannelCount) const {
  const std::uint64_t ringFrames = core->GetHopLength() * newSequenceSize;
  const std::uint64_t stagingFrames = std::max(blockFrames, ringFrames);
  FloatCount({blockFrames});
  Arrays made;
  made.inputStaging = MakeFloatArray({stagingFrames, newChannelCount});
  made.outputStaging = MakeFloatArray({stagingFrames, newChannelCount});
  made.inputRing = MakeFloatArray({ringFrames, newChannelCount});
  made.outputRing = MakeFloatArray({ringFrames, newChannelCount});
  return made;
}

std::int32_t WindowedStreamProcessor::GetSampleRate() {
  return sampleRate;
}

bool WindowedStreamProcessor::SetMasterGain(float gain) {
  return core->SetMasterGain(gain);
}

void WindowedStreamProcessor::ResetGains() {
  core->ResetGains();
}

bool WindowedStreamProcessor::SetAudioClassGain(const char16_t* name, float gain) {
  return core->SetAudioClassGain(name, gain);
}

void WindowedStreamProcessor::SetSequenceSize(std::uint64_t size) {
  Resize(size, channelCount, &Dnn::Kalvrin::SetSequenceSize, size);
}

void WindowedStreamProcessor::SetChannelCount(std::uint64_t count) {
  Resize(sequenceSize, count, &Dnn::Kalvrin::SetChannelCount, count);
}

void WindowedStreamProcessor::Resize(std::uint64_t newSequenceSize, std::uint64_t newChannelCount,
                                     bool (Dnn::Kalvrin::*changeCore)(std::uint64_t),
                                     std::uint64_t changedTo) {
  if (!core->Takes(newChannelCount, newSequenceSize)) return;
  if (!ProductUpTo(MaxFloats, std::array{blockFrames, newChannelCount})) return;
  // What can fail comes before the core changes: core, stage and arrays always have the same sizes.
  OverlapAddStage::Configuration newStage = overlapAdd->Prepare(newSequenceSize, newChannelCount);
  Arrays newArrays = MakeArrays(newSequenceSize, newChannelCount);
  if (!(core.get()->*changeCore)(changedTo)) return;
  overlapAdd->Adopt(std::move(newStage));
  arrays = std::move(newArrays);
  sequenceSize = newSequenceSize;
  channelCount = newChannelCount;
}

RT_CODE void WindowedStreamProcessor::ProcessBlock(const float* const* input, float* const* output,
                                                   std::uint64_t frames,
                                                   std::int32_t continuation) {
  const std::uint64_t capacityFrames = CapacityFrames();
  if (continuation == 0) LineUpCursors();
  // The rings may have become shorter, and the host may have forgotten to pass `continuation` 0.
  readCursor = std::min(readCursor, capacityFrames);
  writeCursor = std::min(writeCursor, capacityFrames);

  const std::uint64_t n = std::min(frames, blockFrames);
  if (n == 0) return;
  const std::uint64_t C = channelCount;
  SignalPrimitives::Interleave(input, static_cast<std::int32_t>(C), static_cast<std::int32_t>(n),
                               arrays.inputStaging.get());

  std::uint64_t taken = 0;
  std::uint64_t put = 0;
  while (taken < n || put < n) {
    if (const std::uint64_t take = std::min(n - taken, capacityFrames - readCursor); take != 0) {
      SignalPrimitives::Copy(arrays.outputRing.get() + readCursor * C,
                             arrays.outputStaging.get() + taken * C, take * C);
      taken += take;
      readCursor += take;
    } else if (const std::uint64_t give = std::min(n - put, capacityFrames - writeCursor);
               give != 0) {
      SignalPrimitives::Copy(arrays.inputStaging.get() + put * C,
                             arrays.inputRing.get() + writeCursor * C, give * C);
      put += give;
      writeCursor += give;
    } else {
      overlapAdd->Run(*this, arrays.inputRing.get(), arrays.outputRing.get());
      readCursor = 0;
      writeCursor = 0;
    }
  }
  SignalPrimitives::Deinterleave(arrays.outputStaging.get(), static_cast<std::int32_t>(C),
                                 static_cast<std::int32_t>(n), output);
}

RT_CODE void WindowedStreamProcessor::Evaluate(const float* input, float* output) {
  core->EvaluateWindow(input, output);
}

}  // namespace Orvik::Tesmo
