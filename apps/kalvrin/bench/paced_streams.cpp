#include "bench/paced_streams.h"

#include "command_line/errors.h"
#include "diagnosis/refusals.h"
#include "hosting/frames.h"
#include "system/process.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <exception>
#include <fstream>
#include <random>
#include <thread>
#include <utility>

namespace Orvik::Tesmo::Tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t noiseFrames = 1 << 15;
/// Further behind than this nothing will be in time again.
constexpr double hopelessSeconds = 2;

Clock::duration Seconds(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

double ProcessorSeconds() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// How many blocks were done how long after they were due. Of one size, however many there are.
class Delays {
public:
  void Add(double halves) {
    worst = std::max(worst, halves);
    const double step = halves * stepsPerHalf;
    ++counts[std::min(counts.size() - 1, static_cast<std::size_t>(std::max(0.0, step)))];
  }
  void Add(const Delays& other) {
    worst = std::max(worst, other.worst);
    for (std::size_t i = 0; i < counts.size(); ++i)
      counts[i] += other.counts[i];
  }
  double Worst() const { return worst; }
  std::uint64_t Count(double fromHalves = 0) const {
    std::uint64_t sum = 0;
    for (auto i = static_cast<std::size_t>(fromHalves * stepsPerHalf); i < counts.size(); ++i)
      sum += counts[i];
    return sum;
  }
  /// At least a share `p` of all blocks had no longer delay.
  double Quantile(double p) const {
    const auto rank = static_cast<std::uint64_t>(std::ceil(p * static_cast<double>(Count())));
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i + 1 < counts.size(); ++i) {
      sum += counts[i];
      if (sum >= rank) return std::min(worst, static_cast<double>(i + 1) / stepsPerHalf);
    }
    return worst;
  }

private:
  static constexpr double stepsPerHalf = 1000;
  std::array<std::uint64_t, 8001> counts{};
  double worst = 0;
};

}  // namespace

double ResidentMiB() {
  std::ifstream file("/proc/self/statm");
  double total = 0, resident = 0;
  file >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

PacedStreams::PacedStreams(std::function<std::unique_ptr<StreamProcessor>()> make,
                           std::size_t channelCount, std::size_t blockFrames,
                           std::size_t blocksPerEvaluation, double rateHz)
    : make(std::move(make)), channelCount(channelCount), blockFrames(blockFrames),
      blocksPerEvaluation(std::max<std::size_t>(1, blocksPerEvaluation)),
      blockSeconds(static_cast<double>(blockFrames) / rateHz), noise(noiseFrames + blockFrames) {
  std::mt19937 generator(1);
  std::uniform_real_distribution<float> level(-0.25F, 0.25F);
  std::ranges::generate(noise, [&] { return level(generator); });
}

void PacedStreams::Process(Stream& stream, std::vector<const float*>& inputs,
                           float* const* outputs) const {
  for (std::size_t c = 0; c < channelCount; ++c)
    inputs[c] = noise.data() + (stream.position + c * 4099) % noiseFrames;
  stream.processor->ProcessBlock(inputs.data(), outputs, blockFrames, 1);
  stream.position = (stream.position + blockFrames) % noiseFrames;
}

std::vector<float> PacedStreams::Grow(std::size_t count) {
  std::vector<float> seconds;
  std::vector<const float*> inputs(channelCount);
  Hosting::Frames outputs(channelCount, blockFrames);
  std::mt19937 generator(static_cast<unsigned>(streams.size()));
  while (streams.size() < count) {
    ThrowIfInterrupted();
    const auto start = Clock::now();
    auto processor = make();
    seconds.push_back(std::chrono::duration<float>(Clock::now() - start).count());
    processor->ResetGains();
    Stream& stream = streams.emplace_back(Stream{std::move(processor), generator() % noiseFrames});
    // Not all models run with the same block.
    for (std::size_t i = 1 + generator() % blocksPerEvaluation; i-- > 0;)
      Process(stream, inputs, outputs.Channels());
  }
  return seconds;
}

/// One thread of a run and its streams.
class PacedStreams::Runner {
public:
  Runner(PacedStreams& all, std::atomic<bool>& isOver)
      : all(all), isOver(isOver), inputs(all.channelCount),
        outputs(all.channelCount, all.blockFrames) {}

  void Add(double phase, Stream& stream) { turns.emplace_back(phase, &stream); }

  void Start(Clock::time_point start, double seconds) {
    std::ranges::sort(turns);
    thread = std::thread([this, start, seconds] {
      try {
        Run(start, seconds);
      } catch (...) {
        failure = std::current_exception();
        isOver = true;
      }
    });
  }

  void Join() { thread.join(); }

  Delays delays;
  std::exception_ptr failure;
  bool isGivenUp = false;

private:
  void Run(Clock::time_point start, double seconds) {
    for (std::uint64_t round = 0;; ++round) {
      for (const auto& [phase, stream] : turns) {
        const double due = (static_cast<double>(round) + phase) * all.blockSeconds;
        if (due > seconds || isOver) return;
        std::this_thread::sleep_until(start + Seconds(due));
        all.Process(*stream, inputs, outputs.Channels());
        const double delay = std::chrono::duration<double>(Clock::now() - start).count() - due;
        delays.Add(delay / (all.blockSeconds / 2));
        isGivenUp = isGivenUp || delay > hopelessSeconds;
        if (isGivenUp) isOver = true;
      }
    }
  }

  PacedStreams& all;
  std::atomic<bool>& isOver;
  std::vector<const float*> inputs;
  Hosting::Frames outputs;
  std::vector<std::pair<double, Stream*>> turns;  ///< phase in blocks, from 0 to 1
  std::thread thread;
};

Pace PacedStreams::Run(std::size_t count, std::size_t threads, double seconds) {
  std::atomic<bool> isOver = false;
  std::vector<std::unique_ptr<Runner>> runners;
  for (std::size_t i = 0; i < std::min(threads, count); ++i)
    runners.push_back(std::make_unique<Runner>(*this, isOver));
  std::mt19937 generator(2);
  std::uniform_real_distribution<double> phase(0, 1);
  for (std::size_t i = 0; i < count; ++i)
    runners[i % runners.size()]->Add(phase(generator), streams[i]);

  Pace pace;
  pace.streams = count;
  const double processorStart = ProcessorSeconds();
  const auto start = Clock::now() + Seconds(0.01);
  for (const auto& runner : runners)
    runner->Start(start, seconds);
  std::exception_ptr interruption;
  while (!isOver && Clock::now() < start + Seconds(seconds)) {
    std::this_thread::sleep_for(Seconds(std::min(0.05, seconds / 50)));
    if (pace.firstMiB == 0 && Clock::now() > start + Seconds(seconds / 10))
      pace.firstMiB = ResidentMiB();
    try {
      ThrowIfInterrupted();
    } catch (...) {
      interruption = std::current_exception();
      isOver = true;
    }
  }
  Delays delays;
  std::exception_ptr failure;
  for (const auto& runner : runners) {
    runner->Join();
    delays.Add(runner->delays);
    if (runner->failure) failure = runner->failure;
    pace.isGivenUp = pace.isGivenUp || runner->isGivenUp;
  }
  const double passed = std::chrono::duration<double>(Clock::now() - start).count();
  if (interruption) std::rethrow_exception(interruption);
  if (failure) {
    try {
      std::rethrow_exception(failure);
    } catch (...) {
      throw Refusal("the model failed: " + TextOfCurrentException());
    }
  }
  pace.blocks = delays.Count();
  pace.late = delays.Count(1);
  pace.rare = delays.Quantile(0.9999);
  pace.worst = delays.Worst();
  pace.processors = (ProcessorSeconds() - processorStart) / passed;
  pace.lastMiB = ResidentMiB();
  return pace;
}

}  // namespace Orvik::Tesmo::Tool
