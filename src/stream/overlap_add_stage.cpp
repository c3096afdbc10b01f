#include "stream/overlap_add_stage.h"

#include "failure/sections.h"
#include "primitives/signal_primitives.h"
#include "stream/windowed_stream_processor.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace Orvik::Tesmo {

namespace {

/// The periodic Hann window w(i) = (1 - cos(2 pi i / n)) / 2 in single precision, where
/// w(i) + w(i + n/2) = 1; or its square root on either side of the model.
Dnn::WindowPair HannWindows(std::uint64_t n, bool isSquareRoot) {
  std::vector<float> window(n);
  const float step = 6.2831855f / static_cast<float>(n);
  for (std::uint64_t i = 0; i < n; ++i)
    window[i] = (1.0f - std::cos(static_cast<float>(i) * step)) * 0.5f;
  if (!isSquareRoot) return {{}, window};
  SignalPrimitives::Sqrt_I(window.data(), n);
  return {window, window};
}

/// Each value `channelCount` times in a row; null where there is no window.
FloatArray Interleaved(const std::vector<float>& window, std::uint64_t channelCount) {
  if (window.empty()) return nullptr;
  FloatArray buffer = MakeFloatArray({window.size(), channelCount});
  for (std::uint64_t i = 0; i < window.size(); ++i)
    std::fill_n(buffer.get() + i * channelCount, channelCount, window[i]);
  return buffer;
}

}  // namespace

OverlapAddStage::OverlapAddStage(std::uint32_t hopLength, std::uint64_t sequenceSize,
                                 std::uint64_t channelCount, std::int32_t squareRootWindow,
                                 const Dnn::WindowPair& declared)
    : hopLength(hopLength),
      windows(declared.synthesis.empty()
                  ? HannWindows(2 * std::uint64_t{hopLength}, squareRootWindow)
                  : declared) {
  Configure(sequenceSize, channelCount);
}

OverlapAddStage::~OverlapAddStage() = default;

OverlapAddStage::Configuration OverlapAddStage::Prepare(std::uint64_t newSequenceSize,
                                                        std::uint64_t newChannelCount) const {
  Configuration next;
  next.sequenceSize = newSequenceSize;
  next.channelCount = newChannelCount;
  next.analysis = Interleaved(windows.analysis, newChannelCount);
  next.synthesis = Interleaved(windows.synthesis, newChannelCount);
  next.hopStride = hopLength * newChannelCount;
  next.windowStride = 2 * next.hopStride;
  next.windows = MakeFloatArray({newSequenceSize, next.windowStride});
  next.inputTail = MakeFloatArray({next.hopStride});
  next.overlapTail = MakeFloatArray({next.hopStride});
  return next;
}

void OverlapAddStage::Adopt(Configuration&& prepared) noexcept {
  current = std::move(prepared);
}

void OverlapAddStage::Configure(std::uint64_t newSequenceSize, std::uint64_t newChannelCount) {
  Adopt(Prepare(newSequenceSize, newChannelCount));
}

void OverlapAddStage::SetSequenceSize(std::uint64_t size) {
  Configure(size, current.channelCount);
}

void OverlapAddStage::SetChannelCount(std::uint64_t count) {
  Configure(current.sequenceSize, count);
}

RT_CODE void OverlapAddStage::Run(WindowedStreamProcessor& processor, const float* input,
                                  float* output) {
  namespace Signal = SignalPrimitives;
  const std::uint64_t S = current.sequenceSize;
  const std::uint64_t hop = current.hopStride;
  const std::uint64_t stride = current.windowStride;
  const float* const analysis = current.analysis.get();
  const float* const synthesis = current.synthesis.get();
  float* const inputTail = current.inputTail.get();
  float* const overlapTail = current.overlapTail.get();
  float* const windows = current.windows.get();

  // Window 0 begins with the last hop of the previous run; all others lie in the input of this run.
  const auto cut = [&](const float* from, std::uint64_t at, float* to, std::uint64_t length) {
    if (analysis)
      Signal::Mul(analysis + at, from, to, length);
    else
      Signal::Copy(from, to, length);
  };
  cut(inputTail, 0, windows, hop);
  cut(input, hop, windows + hop, hop);
  for (std::uint64_t s = 1; s < S; ++s)
    cut(input + (s - 1) * hop, 0, windows + s * stride, stride);
  Signal::Copy(input + (S - 1) * hop, inputTail, hop);

  processor.Evaluate(windows, windows);

  const float* before = overlapTail;
  for (std::uint64_t s = 0; s < S; ++s) {
    float* const fromModel = windows + s * stride;
    Signal::Mul_I(synthesis, fromModel, stride);
    Signal::Add(before, fromModel, output + s * hop, hop);
    before = fromModel + hop;
  }
  Signal::Copy(before, overlapTail, hop);
}

}  // namespace Orvik::Tesmo
