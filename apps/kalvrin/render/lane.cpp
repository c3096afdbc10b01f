#include "render/lane.h"

#include "command_line/errors.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"

#include <algorithm>
#include <chrono>

namespace Orvik::Tesmo::Tool {

Lane::Lane(std::unique_ptr<StreamProcessor> ownedStream, const LaneSizes& laneSizes)
    : sizes(laneSizes), stream(std::move(ownedStream)),
      planar(sizes.channelCount * sizes.blockFrames), interleaved(planar.size()),
      aligner(sizes.skippedFrames, sizes.channelCount) {
  for (std::size_t c = 0; c < sizes.channelCount; ++c)
    channels.push_back(planar.data() + c * sizes.blockFrames);
  if (sizes.modelRateHz != sizes.fileRateHz)
    resampler.emplace(sizes.modelRateHz, sizes.fileRateHz,
                      static_cast<unsigned>(sizes.channelCount));
}

void Lane::Process(const float* const* input) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  try {
    stream->ProcessBlock(input, channels.data(), sizes.blockFrames, 1);
  } catch (...) {
    const double second = static_cast<double>(blocks * sizes.blockFrames) / sizes.modelRateHz;
    throw Refusal("the model failed at " + DurationText(second) +
                  " of the audio: " + TextOfCurrentException());
  }
  processingSeconds += std::chrono::duration<double>(Clock::now() - start).count();
  ++blocks;
  for (std::size_t c = 0; c < sizes.channelCount; ++c)
    for (std::size_t i = 0; i < sizes.blockFrames; ++i)
      interleaved[i * sizes.channelCount + c] = channels[c][i];
  Deliver(aligner.Take(interleaved));
}

void Lane::Deliver(std::span<const float> modelFrames) {
  if (!resampler) return Write(modelFrames);
  converted.clear();
  resampler->Process(modelFrames, converted);
  Write(converted);
}

void Lane::Write(std::span<const float> fileFrames) {
  for (const auto& writer : writers)
    writer->Write(fileFrames);
  writtenFrames += fileFrames.size() / sizes.channelCount;
}

void Lane::Finish(std::uint64_t fileFrames) {
  converted.clear();
  if (resampler) resampler->Finish(converted);
  converted.resize((fileFrames - std::min(fileFrames, writtenFrames)) * sizes.channelCount);
  Write(converted);
  for (const auto& writer : writers)
    writer->Finish();
}

}  // namespace Orvik::Tesmo::Tool
