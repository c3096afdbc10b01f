#pragma once

/// kalvrin: multichannel audio through a neural model that splits every channel into named audio
/// classes, mixed back together by gains that the host sets while audio runs. This header is the
/// host's whole view of the library; it needs C++17 and nothing else.
///
/// A stream, from first to last:
///   1. CreateStreamProcessor: the slow work (the model, its session, every buffer). Null: refused.
///   2. ResetGains, or SetMasterGain and SetAudioClassGain. A new stream has every gain at 0: it is
///      silent until one of these is called.
///   3. ProcessBlock, again and again, `frames` frames in and as many out, later by LatencyFrames.
///   4. `delete` the object, before the library is unloaded.
///
/// Threads: one call at a time on one object, from any thread. The gain operations alone may run
/// while ProcessBlock does; each is one plain 32-bit store. Different objects are independent, and
/// CreateStreamProcessor may run on several threads at once.
///
/// Real time: ProcessBlock allocates nothing of the library's own, takes no lock, starts no thread
/// and makes no system call. The inference engine below it makes a few small allocations per
/// evaluation (docs/real-time.md has the figures).

#include <cstdint>

namespace Orvik::Tesmo {

class StreamProcessor {
public:
  /// Ends the stream and frees everything it holds.
  virtual ~StreamProcessor() = 0;

  /// The model's sample rate in Hz; 0 when the model does not say. Nothing is resampled.
  virtual std::int32_t GetSampleRate() = 0;

  /// Linear factor on everything, from 0. False, and no change, when `gain` is negative or NaN.
  virtual bool SetMasterGain(float gain) = 0;

  /// Master gain, every class gain and the gain of the remainder "Rest" become 1: the output is
  /// then the delayed input, whatever the model returns.
  virtual void ResetGains() = 0;

  /// Linear gain, from 0, of the class called `name` (zero-terminated UTF-16, letters A to Z in
  /// either case). "Rest" is what no class claims. False when no class has that name or `name` is
  /// null. Throws a std::exception when the class is known and `gain` is below 0.
  virtual bool SetAudioClassGain(const char16_t* name, float gain) = 0;

  /// Windows per evaluation, from 1. The stream starts again from silence; the next ProcessBlock
  /// must pass `continuation` 0. Nothing changes when `size` is 0 or the model refuses it. Never
  /// while ProcessBlock runs. Throws std::bad_alloc when memory runs out; the stream then works on
  /// with the old size.
  virtual void SetSequenceSize(std::uint64_t size) = 0;

  /// Channels of the stream, from 1; otherwise as SetSequenceSize.
  virtual void SetChannelCount(std::uint64_t count) = 0;

  /// Takes `frames` frames from `input` and writes as many to `output`: one array per channel on
  /// both sides, read and written during the call only. Samples are 32-bit floats, full scale 1.
  /// `frames` above the `blockFrames` of creation counts as `blockFrames`; the rest of both sides
  /// is left alone. `continuation` 0 lines the read and write positions up again, any other value
  /// runs on. `input[c]` and `output[c]` may be the same array.
  /// Throws when the model fails in the inference engine (catch (...): the class is the library's
  /// own); `output` is then not written, and the stream can be called again.
  virtual void ProcessBlock(const float* const* input, float* const* output, std::uint64_t frames,
                            std::int32_t continuation) = 0;
};

inline StreamProcessor::~StreamProcessor() = default;

/// Frames that a stream hands out ahead of those that it takes in: one block where the blocks
/// divide the `capacityFrames` of an evaluation evenly and are shorter, else none. Each call then
/// has to bring a whole block; `blockFrames` from 1.
constexpr std::uint64_t PrefillFrames(std::uint64_t capacityFrames, std::uint64_t blockFrames) {
  return blockFrames < capacityFrames && capacityFrames % blockFrames == 0 ? blockFrames : 0;
}

/// Frames from a sample at `input` to the same sample at `output` of ProcessBlock, in blocks of
/// `blockFrames` (from 1) and `sequenceSize` windows per evaluation (from 1, as in force).
/// `windowLength` in samples and `lookaheadBlocks` in windows are the model's: `kalvrin info` says
/// them.
///   latency = capacityFrames - prefillFrames + hopLength * (1 + lookaheadBlocks)
constexpr std::uint64_t LatencyFrames(std::uint64_t windowLength, std::uint64_t lookaheadBlocks,
                                      std::uint64_t sequenceSize, std::uint64_t blockFrames) {
  const std::uint64_t hopLength = windowLength / 2;
  const std::uint64_t capacityFrames = hopLength * sequenceSize;
  return capacityFrames - PrefillFrames(capacityFrames, blockFrames) +
         hopLength * (1 + lookaheadBlocks);
}

}  // namespace Orvik::Tesmo

/// Builds a stream for one model, or returns null: on bytes that are no model, a model outside the
/// contract (docs/model-contract.md), sizes that the model refuses, or no memory. `kalvrin check`
/// says which. The caller owns the result.
/// `modelData`: `modelSize` bytes of a serialized ONNX model, read during the call only; null
/// returns null. Of `modelSize` the low 32 bits count. `sequenceSize`: half-overlapping windows per
/// evaluation; 0 takes the model's own value, else 4. `channelCount`: from 1. `blockFrames`: from
/// 1; frames per channel that ProcessBlock is given.
extern "C" Orvik::Tesmo::StreamProcessor*
CreateStreamProcessor(const void* modelData, std::uint64_t modelSize, std::uint64_t sequenceSize,
                      std::uint64_t channelCount, std::uint64_t blockFrames);
