// A long stream, twice: the same audio, sizes and gains through two streams in different blocks has
// to come out the same to the bit, for as long as one cares to wait, in the same memory.
//
// One stream takes blocks of an even length, the other blocks of random lengths where its sizes
// allow any. That an evaluation is right is shown elsewhere (tests/platform/state_test.cpp).

#include "kalvrin/stream_processor.h"

#include "soak/many.h"
#include "support/audio_models.h"
#include "support/seed.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::StreamProcessor;
using Generator = std::mt19937_64;

std::uint64_t Between(Generator& generator, std::uint64_t low, std::uint64_t high) {
  return std::uniform_int_distribution<std::uint64_t>(low, high)(generator);
}

struct Row {
  const char* name;
  std::vector<const char16_t*> classes;
  std::uint64_t hop, lookahead;
  std::uint64_t evenBlock, longestBlock;  ///< of the one stream, of the other
  double share;                           ///< of all frames
  std::string model = RecipeModel(name);
};

constexpr std::uint64_t sequenceSizes[] = {1, 2, 3, 4, 6};
constexpr std::uint64_t mostChannels = 3;

std::vector<Row> Rows() {
  const std::vector<StateOptions> counters = {{.isHeard = true},
                                              {.element = Element::Int64, .shape = {"C"}}};
  const std::string counting = MakeAudioModel({.features = 128, .states = counters});
  // 256 is one hop of the recipes, 512 of one; 97 and 331 divide no ring
  return {
      {"counting states", {u"Extracted"}, 64, 0, 32, 97, 0.3, counting},
      {"band_splitter", {u"Low", u"Voice", u"High"}, 256, 0, 128, 331, 0.3},
      {"noise_reducer", {u"Speech"}, 256, 0, 256, 97, 0.2},
      {"harmonic_percussive", {u"Harmonic", u"Percussive"}, 512, 3, 331, 1024, 0.1},
      {"separator", {u"Speech", u"Music"}, 256, 0, 64, 331, 0.1},
  };
}

/// Planar audio that is put in behind and taken out in front.
class Fifo {
public:
  void Reset(std::uint64_t channelCount) { channels.assign(channelCount, {}); }
  std::uint64_t Frames() const { return channels.front().size(); }
  std::vector<float>& operator[](std::size_t channel) { return channels[channel]; }
  void Drop(std::uint64_t frames) {
    for (auto& channel : channels)
      channel.erase(channel.begin(), channel.begin() + static_cast<std::ptrdiff_t>(frames));
  }

private:
  std::vector<std::vector<float>> channels;
};

/// One of the two streams.
class Side {
public:
  Side(const std::string& model, std::uint64_t longestBlock, bool isEven)
      : stream(CreateStreamProcessor(model.data(), model.size(), 1, 1, longestBlock)),
        longestBlock(longestBlock), isEven(isEven) {
    if (!stream) throw std::runtime_error("the stream is refused");
  }

  void Resize(std::uint64_t hop, std::uint64_t sequenceSize, std::uint64_t channelCount) {
    stream->SetSequenceSize(sequenceSize);
    stream->SetChannelCount(channelCount);
    const std::uint64_t capacity = hop * sequenceSize;
    isPrefilled = Orvik::Tesmo::PrefillFrames(capacity, longestBlock) != 0;
    // what stands in the ring at first
    undelivered = capacity - (isPrefilled ? longestBlock : 0);
    out.Reset(channelCount);
    block.resize(longestBlock * channelCount);
    continuation = 0;
  }

  /// Frames of which a call to Feed has to be a multiple: a prefilled stream takes no others.
  std::uint64_t Unit() const { return isPrefilled ? longestBlock : 1; }

  void Feed(Fifo& in, std::uint64_t from, std::uint64_t frames, std::uint64_t channelCount,
            Generator& generator) {
    std::vector<const float*> inputs(channelCount);
    std::vector<float*> outputs(channelCount);
    while (frames != 0) {
      const std::uint64_t wanted =
          isEven || isPrefilled ? longestBlock : Between(generator, 0, longestBlock);
      const std::uint64_t n = std::min(frames, wanted);
      for (std::size_t c = 0; c < channelCount; ++c) {
        inputs[c] = in[c].data() + from;
        outputs[c] = block.data() + c * longestBlock;
      }
      stream->ProcessBlock(inputs.data(), outputs.data(), n, continuation);
      continuation = 1;
      const std::uint64_t skipped = std::min(n, undelivered);
      undelivered -= skipped;
      for (std::size_t c = 0; c < channelCount; ++c)
        out[c].insert(out[c].end(), outputs[c] + skipped, outputs[c] + n);
      from += n;
      frames -= n;
      ++blocks;
    }
  }

  std::unique_ptr<StreamProcessor> stream;
  Fifo out;  ///< from the first frame on that an evaluation gave
  std::uint64_t blocks = 0;

private:
  std::uint64_t longestBlock;
  bool isEven;
  bool isPrefilled = false;
  std::uint64_t undelivered = 0;
  std::int32_t continuation = 0;
  std::vector<float> block;
};

double ResidentMiB() {
  std::ifstream file("/proc/self/statm");
  double total = 0, resident = 0;
  file >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

/// One row of the table, run to its end.
class Soak {
public:
  Soak(const Row& row, std::uint64_t seed)
      : row(row), generator(seed), random(row.model, row.longestBlock, false),
        even(row.model, row.evenBlock, true) {}

  /// At least `frames` frames: first every size once, then random sizes for a quarter of them, then
  /// the last sizes to the end. Throws what went wrong.
  void Run(std::uint64_t frames) {
    for (const std::uint64_t sequenceSize : sequenceSizes)
      for (std::uint64_t channelCount = 1; channelCount <= mostChannels; ++channelCount)
        RunSegment(sequenceSize, channelCount, 8);
    memoryAtFirst = memoryAtMost = ResidentMiB();
    while (framesRun < frames / 4)
      RunSegment(sequenceSizes[Between(generator, 0, std::size(sequenceSizes) - 1)],
                 Between(generator, 1, mostChannels), Between(generator, 1, 80));
    const std::uint64_t sequenceSize = Between(generator, 1, 4);
    const std::uint64_t left = frames - std::min(frames, framesRun);
    RunSegment(sequenceSize, 2, left / (row.hop * sequenceSize) + 1);
  }

  void Print(double seconds) const {
    std::printf("%-20s%12" PRIu64 "%12" PRIu64 "%12" PRIu64 "%9" PRIu64 "%10" PRIu64
                "%9.1f%9.1f%8.0f\n",
                row.name, framesRun, random.blocks, even.blocks, sizeChanges, gainChanges,
                memoryAtFirst, memoryAtMost, seconds);
    std::fflush(stdout);
  }

  double MemoryGrowthMiB() const { return memoryAtMost - memoryAtFirst; }

private:
  [[noreturn]] void Fail(const std::string& what) const {
    throw std::runtime_error(std::string(row.name) + ", " + std::to_string(channels) +
                             " channels, sequence size " + std::to_string(capacity / row.hop) +
                             ", frame " + std::to_string(position) + " after size change " +
                             std::to_string(sizeChanges) + ": " + what);
  }

  /// New sizes, and `evaluations` evaluations with gains that change at random; in every fourth
  /// segment all stay 1.
  void RunSegment(std::uint64_t sequenceSize, std::uint64_t channelCount,
                  std::uint64_t evaluations) {
    channels = channelCount;
    capacity = row.hop * sequenceSize;
    for (Side* side : {&random, &even}) {
      side->Resize(row.hop, sequenceSize, channelCount);
      side->stream->ResetGains();
    }
    ++sizeChanges;
    in.Reset(channelCount);
    position = compared = 0;
    isUnity = Between(generator, 0, 3) == 0;
    const std::uint64_t unit = std::max<std::uint64_t>(1, std::lcm(random.Unit(), even.Unit()));
    while (position < evaluations * capacity) {
      // a gain meets the same evaluation in both where both are between the same two
      if (!isUnity && position % capacity != 0) ChangeGains();
      Advance(unit * Between(generator, 1, std::max<std::uint64_t>(1, 2 * capacity / unit)));
    }
    if (memoryAtFirst > 0) memoryAtMost = std::max(memoryAtMost, ResidentMiB());
  }

  void ChangeGains() {
    ++gainChanges;
    const auto gain = static_cast<float>(Between(generator, 0, 200)) / 100.0F;
    const std::uint64_t kind = Between(generator, 0, 3);
    const char16_t* name =
        kind == 0 ? u"Rest" : row.classes[Between(generator, 0, row.classes.size() - 1)];
    for (Side* side : {&random, &even}) {
      if (kind == 3)
        side->stream->SetMasterGain(gain);
      else
        side->stream->SetAudioClassGain(name, gain);
    }
  }

  void Advance(std::uint64_t frames) {
    std::uniform_real_distribution<float> level(-0.5F, 0.5F);
    const std::uint64_t from = in.Frames();
    for (std::uint64_t c = 0; c < channels; ++c)
      for (std::uint64_t i = 0; i < frames; ++i)
        in[c].push_back(level(generator));
    for (Side* side : {&random, &even})
      side->Feed(in, from, frames, channels, generator);
    position += frames;
    framesRun += frames;
    Compare();
    if (memoryAtFirst > 0) memoryAtMost = std::max(memoryAtMost, ResidentMiB());
  }

  /// What both have given so far, and in unity segments that it is the input.
  void Compare() {
    const std::uint64_t n = std::min(random.out.Frames(), even.out.Frames());
    // the input from frame max(0, compared - delay) on is still in `in`
    for (std::uint64_t c = 0; c < channels; ++c) {
      for (std::uint64_t i = 0; i < n; ++i) {
        const float a = random.out[c][i], b = even.out[c][i];
        if (std::bit_cast<std::uint32_t>(a) != std::bit_cast<std::uint32_t>(b))
          Fail("output " + std::to_string(compared + i) + " of channel " + std::to_string(c) +
               " is " + std::to_string(a) + " and " + std::to_string(b));
        const std::uint64_t at = compared + i;
        if (!isUnity || at < delay) continue;
        const float expected = in[c][at - delay - InFrom()];
        if (!(std::abs(a - expected) < 6e-7F))
          Fail("output " + std::to_string(at) + " at unity is " + std::to_string(a) + ", not " +
               std::to_string(expected));
      }
    }
    const std::uint64_t keptFrom = InFrom();
    compared += n;
    in.Drop(InFrom() - keptFrom);
    random.out.Drop(n);
    even.out.Drop(n);
  }

  /// The first frame of the segment that `in` still holds.
  std::uint64_t InFrom() const { return compared - std::min(compared, delay); }

  const Row& row;
  const std::uint64_t delay = row.hop * (1 + row.lookahead);
  Generator generator;
  Side random, even;
  Fifo in;
  std::uint64_t channels = 1, capacity = 1;
  std::uint64_t position = 0, compared = 0;  ///< frames of the segment given, and compared
  bool isUnity = false;
  std::uint64_t framesRun = 0, sizeChanges = 0, gainChanges = 0;
  double memoryAtFirst = 0, memoryAtMost = 0;
};

/// More than this is no noise of the allocator any more: 100 bytes per change of sizes would be.
constexpr double toleratedGrowthMiB = 3;

int RunAll(std::uint64_t frames) {
  const std::uint64_t seed = TestSeed();
  std::printf("%-20s%12s%12s%12s%9s%10s%9s%9s%8s\n", "model", "frames", "blocks", "even blocks",
              "sizes", "gains", "MiB", "at most", "s");
  int failures = 0;
  for (const Row& row : Rows()) {
    try {
      const auto start = std::chrono::steady_clock::now();
      Soak soak(row, seed);
      soak.Run(static_cast<std::uint64_t>(static_cast<double>(frames) * row.share));
      soak.Print(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
      if (soak.MemoryGrowthMiB() > toleratedGrowthMiB && KALVRIN_WATCHES_MEMORY)
        throw std::runtime_error(std::string(row.name) + ": the process has grown");
    } catch (const std::exception& failure) {
      std::printf("FAILED: %s\n", failure.what());
      ++failures;
    }
  }
  return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int count, char** arguments) {
  const auto number = [&](int index, double otherwise) {
    return count > index ? std::atof(arguments[index]) : otherwise;  // NOLINT(cert-err34-c)
  };
  const bool isMany = count > 1 && std::string(arguments[1]) == "--streams";
  const double frames = number(1, 1e8), streams = number(2, 0), seconds = number(3, 60);
  if (isMany && streams >= 1 && seconds >= 0.1 && count <= 4)
    return SoakManyStreams(static_cast<std::size_t>(streams), seconds);
  if (isMany || !(frames >= 1) || count > 2) {
    std::fprintf(stderr, "usage: soak [FRAMES], 1e8 unless given\n"
                         "       soak --streams N [SECONDS], 60 s of audio each unless given\n");
    return 2;
  }
  return RunAll(static_cast<std::uint64_t>(frames));
}
