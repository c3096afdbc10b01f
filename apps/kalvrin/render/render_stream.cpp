#include "render/render_stream.h"

#include "command_line/errors.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"

#include <algorithm>
#include <chrono>

namespace Orvik::Tesmo::Tool {

RenderStream::RenderStream(std::unique_ptr<StreamProcessor> ownedStream,
                           const RenderSizes& renderSizes)
    : sizes(renderSizes), stream(std::move(ownedStream)),
      block(sizes.channelCount, sizes.blockFrames),
      interleaved(sizes.channelCount * sizes.blockFrames), skip(sizes.skippedFrames) {}

void RenderStream::Process(const float* const* input) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  try {
    stream->ProcessBlock(input, block.Channels(), sizes.blockFrames, 1);
  } catch (...) {
    const double second = static_cast<double>(blocks * sizes.blockFrames) / sizes.rateHz;
    throw Refusal("the model failed at " + DurationText(second) +
                  " of the audio: " + TextOfCurrentException());
  }
  processingSeconds += std::chrono::duration<double>(Clock::now() - start).count();
  ++blocks;
  for (std::size_t c = 0; c < sizes.channelCount; ++c)
    for (std::size_t i = 0; i < sizes.blockFrames; ++i)
      interleaved[i * sizes.channelCount + c] = block[c][i];
  const auto kept = Keep(interleaved);
  for (const auto& writer : writers)
    writer->Write(kept);
}

/// The frames of a block that are neither skipped nor beyond the length.
std::span<const float> RenderStream::Keep(std::span<const float> all) {
  const std::uint64_t frames = all.size() / sizes.channelCount;
  const std::uint64_t skipped = std::min(skip, frames);
  skip -= skipped;
  const std::uint64_t kept = std::min(frames - skipped, length - keptFrames);
  keptFrames += kept;
  return all.subspan(skipped * sizes.channelCount, kept * sizes.channelCount);
}

void RenderStream::Finish() {
  for (const auto& writer : writers)
    writer->Finish();
}

}  // namespace Orvik::Tesmo::Tool
