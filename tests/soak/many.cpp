#include "soak/many.h"

#include "support/audio_models.h"
#include "support/recording.h"
#include "support/seed.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

namespace {

using namespace TestSupport;
using Clock = std::chrono::steady_clock;

constexpr std::size_t blockFrames = 256;
constexpr double blockSeconds = static_cast<double>(blockFrames) / 16000;
constexpr std::size_t recordedBlocks = 625;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double ResidentMiB() {
  std::ifstream file("/proc/self/statm");
  double total = 0, resident = 0;
  file >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

/// What is allocated. Memory in RAM is more, by the gaps that streams leave that have come and
/// gone.
double HeapMiB() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd) / (1 << 20);
}

struct Counts {
  std::atomic<std::uint64_t> blocks = 0, streams = 0, different = 0;
  std::atomic<std::size_t> running = 0;  ///< threads
};

/// One thread's streams, block by block in turn.
void Play(const Recording& recording, std::size_t streams, std::size_t blocks, unsigned seed,
          Counts& counts) {
  struct Place {
    std::unique_ptr<Orvik::Tesmo::StreamProcessor> stream;
    std::size_t next;  ///< block; the first piece is a short one, so that not all end at once
  };
  std::mt19937 generator(seed);
  std::vector<Place> places;
  for (std::size_t i = 0; i < streams; ++i)
    places.push_back({nullptr, 0});
  std::vector<std::size_t> ends(streams);
  for (std::size_t& end : ends)
    end = 1 + generator() % recording.Blocks();
  for (std::size_t round = 0; round < blocks; ++round) {
    for (std::size_t i = 0; i < streams; ++i) {
      auto& [stream, next] = places[i];
      if (!stream) {
        stream = recording.MakeStream();
        ++counts.streams;
      }
      if (!recording.Plays(*stream, next)) ++counts.different;
      ++counts.blocks;
      if (++next < ends[i]) continue;
      stream.reset();
      next = 0;
      ends[i] = recording.Blocks();
    }
  }
}

}  // namespace

int SoakManyStreams(std::size_t streams, double seconds) {
  const Recording recording(RecipeModel("separator"), blockFrames, recordedBlocks,
                            static_cast<unsigned>(TestSeed()));
  const std::size_t threadCount = std::max(1U, std::thread::hardware_concurrency());
  const auto blocks = static_cast<std::size_t>(seconds / blockSeconds);
  Counts counts;
  counts.running = threadCount;
  std::vector<std::thread> threads;
  const auto start = Clock::now();
  for (std::size_t t = 0; t < threadCount; ++t)
    threads.emplace_back([&, t] {
      try {
        Play(recording, streams / threadCount + (t < streams % threadCount ? 1 : 0), blocks,
             static_cast<unsigned>(TestSeed() + t), counts);
      } catch (const std::exception& reason) {
        std::printf("FAILED: %s\n", reason.what());
        ++counts.different;
      }
      --counts.running;
    });

  std::printf("%10s%14s%10s%12s%12s%12s\n", "s", "blocks", "streams", "different", "MiB in RAM",
              "allocated");
  // Memory counts from the second quarter on; the last part, in which threads end, does not.
  const std::uint64_t allBlocks = std::uint64_t{blocks} * streams;
  double early = 0, late = 0;
  for (int tick = 0; counts.running != 0; ++tick) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double now = HeapMiB();
    if (counts.running == threadCount && counts.blocks > allBlocks / 4)
      (counts.blocks < allBlocks / 2 ? early : late) =
          std::max(counts.blocks < allBlocks / 2 ? early : late, now);
    if (tick % 50 != 49 && counts.running != 0) continue;
    std::printf("%10.0f%14llu%10llu%12llu%12.1f%12.1f\n", SecondsSince(start),
                static_cast<unsigned long long>(counts.blocks),
                static_cast<unsigned long long>(counts.streams),
                static_cast<unsigned long long>(counts.different), ResidentMiB(), now);
    std::fflush(stdout);
  }
  for (std::thread& thread : threads)
    thread.join();
  std::printf("%zu streams, %llu made in all, %llu blocks in %.0f s; allocated were %.1f MiB at "
              "most in the "
              "second quarter, %.1f MiB after it\n",
              streams, static_cast<unsigned long long>(counts.streams),
              static_cast<unsigned long long>(counts.blocks), SecondsSince(start), early, late);
  if (counts.different != 0) {
    std::printf("FAILED: not every block was that of a stream alone\n");
    return EXIT_FAILURE;
  }
  // A few streams are between two lives.
  if (early > 0 && late > early * 1.01 + 3 && KALVRIN_WATCHES_MEMORY) {
    std::printf("FAILED: the process has grown\n");
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
