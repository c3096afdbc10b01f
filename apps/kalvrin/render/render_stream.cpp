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
      interleaved(sizes.channelCount * sizes.blockFrames), skip(sizes.skippedFrames) {
  if (sizes.modelRateHz != sizes.fileRateHz)
    resampler.emplace(sizes.modelRateHz, sizes.fileRateHz,
                      static_cast<unsigned>(sizes.channelCount));
}

void RenderStream::Process(const float* const* input) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  try {
    stream->ProcessBlock(input, block.Channels(), sizes.blockFrames, 1);
  } catch (...) {
    const double second = static_cast<double>(blocks * sizes.blockFrames) / sizes.modelRateHz;
    throw Refusal("the model failed at " + DurationText(second) +
                  " of the audio: " + TextOfCurrentException());
  }
  processingSeconds += std::chrono::duration<double>(Clock::now() - start).count();
  ++blocks;
  for (std::size_t c = 0; c < sizes.channelCount; ++c)
    for (std::size_t i = 0; i < sizes.blockFrames; ++i)
      interleaved[i * sizes.channelCount + c] = block[c][i];
  Deliver(Keep(interleaved));
}

/// The frames of a block that are neither skipped nor beyond the length.
std::span<const float> RenderStream::Keep(std::span<const float> modelFrames) {
  const std::uint64_t frames = modelFrames.size() / sizes.channelCount;
  const std::uint64_t skipped = std::min(skip, frames);
  skip -= skipped;
  const std::uint64_t kept = std::min(frames - skipped, length - keptFrames);
  keptFrames += kept;
  return modelFrames.subspan(skipped * sizes.channelCount, kept * sizes.channelCount);
}

void RenderStream::Deliver(std::span<const float> modelFrames) {
  if (!resampler) return Write(modelFrames);
  converted.clear();
  resampler->Process(modelFrames, converted);
  Write(converted);
}

void RenderStream::Write(std::span<const float> fileFrames) {
  for (const auto& writer : writers)
    writer->Write(fileFrames);
  writtenFrames += fileFrames.size() / sizes.channelCount;
}

void RenderStream::Finish(std::uint64_t fileFrames) {
  converted.clear();
  if (resampler) resampler->Finish(converted);
  converted.resize((fileFrames - std::min(fileFrames, writtenFrames)) * sizes.channelCount);
  Write(converted);
  for (const auto& writer : writers)
    writer->Finish();
}

}  // namespace Orvik::Tesmo::Tool
