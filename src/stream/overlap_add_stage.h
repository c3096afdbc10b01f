#pragma once

#include "runtime/float_array.h"
#include "runtime/window_shape.h"

#include <cstdint>

namespace Orvik::Tesmo {

class WindowedStreamProcessor;

/// Cuts a continuous signal into half-overlapping windows for the model, and sums what comes back
/// into a continuous signal again, `hopLength` frames later.
///
/// Interleaved throughout. A window is two hops; a hop is `hopLength` frames of `channelCount`
/// floats. Memory between runs: the last hop of input and the second half of the last output
/// window. Run allocates nothing; all else is for one thread at a time, and not during Run.
class OverlapAddStage {
public:
  /// Everything that follows from the sizes.
  struct Configuration {
    std::uint64_t sequenceSize = 0;
    std::uint64_t channelCount = 0;
    std::uint64_t hopStride = 0;     ///< floats per hop
    std::uint64_t windowStride = 0;  ///< floats per window
    FloatArray analysis;             ///< a window: each value once per channel; null: none
    FloatArray synthesis;            ///< a window: each value once per channel
    FloatArray inputTail;            ///< a hop: the last one of the last run's input
    FloatArray overlapTail;          ///< a hop: the second half of the last run's last window
    FloatArray windows;              ///< sequenceSize windows in a row, to and from the model
  };

  /// `declared`: the windows of the model, 2 * hopLength numbers each. Where it is empty,
  /// `squareRootWindow` 1 stands for the square root of a Hann window before and after the model,
  /// 0 for no window before it and the Hann window after. Whichever it is, a model that passes its
  /// input through returns the input. Throws as Prepare.
  OverlapAddStage(std::uint32_t hopLength, std::uint64_t sequenceSize, std::uint64_t channelCount,
                  std::int32_t squareRootWindow, const Dnn::WindowPair& declared = {});
  virtual ~OverlapAddStage();

  /// A fresh configuration for these sizes, with silence for a past. Changes nothing of the stage.
  /// Throws ContractException on a size of 0 or beyond MaxFloats, std::bad_alloc.
  Configuration Prepare(std::uint64_t newSequenceSize, std::uint64_t newChannelCount) const;
  void Adopt(Configuration&& prepared) noexcept;

  /// Prepare and Adopt: also with unchanged sizes the stage starts again from silence. Throws as
  /// Prepare, and then nothing has changed.
  void Configure(std::uint64_t newSequenceSize, std::uint64_t newChannelCount);
  void SetSequenceSize(std::uint64_t size);
  void SetChannelCount(std::uint64_t count);

  /// `input`, `output`: sequenceSize hops each, apart from one another. Calls Evaluate of
  /// `processor` once. What that throws passes through: `input` has then become part of the past
  /// and `output` is not written.
  void Run(WindowedStreamProcessor& processor, const float* input, float* output);

private:
  std::uint64_t hopLength;
  Dnn::WindowPair windows;  ///< no analysis window: the model's windows are as they were cut
  Configuration current;
};

}  // namespace Orvik::Tesmo
