#include "bench/timed_stream.h"

#include "command_line/errors.h"
#include "diagnosis/refusals.h"
#include "system/process.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <numeric>
#include <random>
#include <utility>

namespace Orvik::Tesmo::Tool {
namespace {

/// Long enough that a model with states does not get the same block again and again.
constexpr std::uint64_t noiseFrames = 1 << 15;

/// How many evaluations a stream has run after `frames` frames in blocks of one length. A stream
/// that starts prefilled runs one with the last frame of each sequence, another with the first
/// frame of the next.
std::uint64_t Evaluations(std::uint64_t frames, std::uint64_t blockFrames,
                          std::uint64_t capacityFrames) {
  const bool isPrefilled = PrefillFrames(capacityFrames, blockFrames) != 0;
  return isPrefilled || frames == 0 ? frames / capacityFrames : (frames - 1) / capacityFrames;
}

/// The processor time of this thread, in seconds.
double ThreadSeconds() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

}  // namespace

double BlockTimes::Sum() const {
  return std::accumulate(evaluating.begin(), evaluating.end(), 0.0) +
         std::accumulate(others.begin(), others.end(), 0.0);
}

double Quantile(std::vector<float>& values, double p) {
  if (values.empty()) return 0;
  std::ranges::sort(values);
  const auto rank = static_cast<std::size_t>(std::ceil(p * static_cast<double>(values.size())));
  return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

TimedStream::TimedStream(std::unique_ptr<StreamProcessor> made, const StreamRequest& settled,
                         std::uint64_t hopLength)
    : stream(std::move(made)), blockFrames(settled.blockFrames),
      capacityFrames(hopLength * settled.sequenceSize), noise(noiseFrames + blockFrames),
      inputs(settled.channelCount), outputs(settled.channelCount, blockFrames) {
  std::mt19937 generator(1);
  std::uniform_real_distribution<float> level(-0.25F, 0.25F);
  std::ranges::generate(noise, [&] { return level(generator); });
  stream->ResetGains();
  while (given < 4 * capacityFrames)
    TimeBlock();
}

bool TimedStream::NextBlockEvaluates() const {
  return Evaluations(given + blockFrames, blockFrames, capacityFrames) >
         Evaluations(given, blockFrames, capacityFrames);
}

TimedStream::Times TimedStream::TimeBlock() {
  using Clock = std::chrono::steady_clock;
  // Each channel gets another part of the noise.
  for (std::size_t c = 0; c < inputs.size(); ++c)
    inputs[c] = noise.data() + (given + c * 4099) % noiseFrames;
  const double threadStart = ThreadSeconds();
  const auto start = Clock::now();
  stream->ProcessBlock(inputs.data(), outputs.Channels(), blockFrames, 1);
  const auto end = Clock::now();
  const double threadEnd = ThreadSeconds();
  given += blockFrames;
  return {std::chrono::duration<double>(end - start).count(), threadEnd - threadStart};
}

BlockTimes TimedStream::Run(std::uint64_t blocks, double seconds) {
  BlockTimes times;
  try {
    double sum = 0;
    while (times.Count() < blocks && (sum < seconds || times.evaluating.empty())) {
      ThrowIfInterrupted();
      const bool evaluates = NextBlockEvaluates();
      const Times block = TimeBlock();
      (evaluates ? times.evaluating : times.others).push_back(static_cast<float>(block.passed));
      if (evaluates) times.onProcessor.push_back(static_cast<float>(block.onProcessor));
      sum += block.passed;
    }
  } catch (const Interrupted&) {
    throw;
  } catch (...) {
    throw Refusal("the model failed: " + TextOfCurrentException());
  }
  return times;
}

}  // namespace Orvik::Tesmo::Tool
