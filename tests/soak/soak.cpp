// A long stream, twice: the same audio, sizes and gains through two streams in different blocks has
// to come out the same to the bit, for as long as one cares to wait, in the same memory. One stream
// takes blocks of an even length, the other of random lengths where its sizes allow any.

#include "kalvrin/stream_processor.h"

#include "support/audio_models.h"
#include "support/seed.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
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

/// By channel; put in behind and taken out in front.
using Audio = std::vector<std::vector<float>>;

/// One of the two streams.
class Side {
public:
  Side(const Row& row, std::uint64_t longestBlock, bool isEven)
      : stream(CreateStreamProcessor(row.model.data(), row.model.size(), 1, 1, longestBlock)),
        longestBlock(longestBlock), isEven(isEven) {
    if (!stream) throw std::runtime_error("the stream is refused");
  }

  void Resize(std::uint64_t hop, std::uint64_t sequenceSize, std::uint64_t channelCount) {
    stream->SetSequenceSize(sequenceSize);
    stream->SetChannelCount(channelCount);
    stream->ResetGains();
    const std::uint64_t capacity = hop * sequenceSize;
    isPrefilled = longestBlock < capacity && capacity % longestBlock == 0;
    // what stands in the ring at first
    undelivered = capacity - (isPrefilled ? longestBlock : 0);
    out.assign(channelCount, {});
    block.resize(longestBlock * channelCount);
    continuation = 0;
  }

  /// Frames of which a call to Feed has to be a multiple: a prefilled stream takes no others.
  std::uint64_t Unit() const { return isPrefilled ? longestBlock : 1; }

  void Feed(const Audio& in, Generator& generator) {
    std::vector<const float*> inputs(in.size());
    std::vector<float*> outputs(in.size());
    for (std::uint64_t from = 0, n = 0; from < in[0].size(); from += n, ++blocks) {
      n = isEven || isPrefilled ? longestBlock : Between(generator, 0, longestBlock);
      n = std::min(n, in[0].size() - from);
      for (std::size_t c = 0; c < in.size(); ++c) {
        inputs[c] = in[c].data() + from;
        outputs[c] = block.data() + c * longestBlock;
      }
      stream->ProcessBlock(inputs.data(), outputs.data(), n, continuation);
      continuation = 1;
      const std::uint64_t skipped = std::min(n, undelivered);
      undelivered -= skipped;
      for (std::size_t c = 0; c < in.size(); ++c)
        out[c].insert(out[c].end(), outputs[c] + skipped, outputs[c] + n);
    }
  }

  std::unique_ptr<StreamProcessor> stream;
  Audio out;  ///< from the first frame on that an evaluation gave
  unsigned long long blocks = 0;

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

/// More than this is no noise of the allocator any more: 100 bytes per change of sizes would be.
constexpr double toleratedGrowthMiB = 3;

/// One row of the table, run to its end.
class Soak {
public:
  Soak(const Row& row, std::uint64_t seed)
      : row(row), generator(seed), random(row, row.longestBlock, false),
        even(row, row.evenBlock, true) {}

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
    const std::uint64_t left = frames - std::min<std::uint64_t>(frames, framesRun);
    RunSegment(sequenceSize, 2, left / (row.hop * sequenceSize) + 1);
    std::printf("%-20s%12llu%12llu%12llu%9llu%10llu%9.1f%9.1f\n", row.name, framesRun,
                random.blocks, even.blocks, sizeChanges, gainChanges, memoryAtFirst, memoryAtMost);
    if (memoryAtMost - memoryAtFirst > toleratedGrowthMiB && KALVRIN_WATCHES_MEMORY)
      throw std::runtime_error("the process has grown");
  }

private:
  /// New sizes, and `evaluations` evaluations with gains that change at random; in every fourth
  /// segment all stay 1.
  void RunSegment(std::uint64_t sequenceSize, std::uint64_t channelCount,
                  std::uint64_t evaluations) {
    const std::uint64_t capacity = row.hop * sequenceSize;
    for (Side* side : {&random, &even})
      side->Resize(row.hop, sequenceSize, channelCount);
    ++sizeChanges;
    delayed.assign(channelCount, std::vector<float>(row.hop * (1 + row.lookahead)));
    compared = 0;
    isUnity = Between(generator, 0, 3) == 0;
    const std::uint64_t unit = std::lcm(random.Unit(), even.Unit());
    for (std::uint64_t position = 0; position < evaluations * capacity;) {
      // a gain meets the same evaluation in both where both are between the same two
      if (!isUnity && position % capacity != 0) ChangeGains();
      const std::uint64_t most = std::max<std::uint64_t>(1, 2 * capacity / unit);
      const std::uint64_t frames = unit * Between(generator, 1, most);
      Advance(frames);
      position += frames;
    }
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
    Audio in(delayed.size(), std::vector<float>(frames));
    for (std::size_t c = 0; c < in.size(); ++c) {
      for (float& sample : in[c])
        sample = level(generator);
      delayed[c].insert(delayed[c].end(), in[c].begin(), in[c].end());
    }
    for (Side* side : {&random, &even})
      side->Feed(in, generator);
    framesRun += frames;
    const std::size_t n = std::min(random.out[0].size(), even.out[0].size());
    for (std::size_t c = 0; c < in.size(); ++c)
      for (std::size_t i = 0; i < n; ++i)
        Compare(c, i);
    for (Audio* audio : {&random.out, &even.out, &delayed})
      for (auto& channel : *audio)
        channel.erase(channel.begin(), channel.begin() + static_cast<std::ptrdiff_t>(n));
    compared += n;
    if (memoryAtFirst > 0) memoryAtMost = std::max(memoryAtMost, ResidentMiB());
  }

  /// What both have given, and at unity that it is the input.
  void Compare(std::size_t c, std::size_t i) const {
    const float a = random.out[c][i], b = even.out[c][i], unity = delayed[c][i];
    const bool isSame = std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
    if (isSame && (!isUnity || std::abs(a - unity) < 6e-7F)) return;
    throw std::runtime_error(std::to_string(delayed.size()) + " channels, output " +
                             std::to_string(compared + i) + " of channel " + std::to_string(c) +
                             " after size change " + std::to_string(sizeChanges) + " is " +
                             std::to_string(a) + " and " + std::to_string(b) +
                             (isUnity ? ", not " + std::to_string(unity) : ""));
  }

  const Row& row;
  Generator generator;
  Side random, even;
  Audio delayed;               ///< input that is to come out at unity
  std::uint64_t compared = 0;  ///< frames of the segment
  bool isUnity = false;
  unsigned long long framesRun = 0, sizeChanges = 0, gainChanges = 0;
  double memoryAtFirst = 0, memoryAtMost = 0;
};

}  // namespace

int main(int count, char** arguments) {
  const double frames = count > 1 ? std::atof(arguments[1]) : 1e8;  // NOLINT(cert-err34-c)
  if (!(frames >= 1) || count > 2) {
    std::fprintf(stderr, "usage: soak [FRAMES], 1e8 unless given\n");
    return 2;
  }
  const std::uint64_t seed = TestSeed();
  std::printf("%-20s%12s%12s%12s%9s%10s%9s%9s\n", "model", "frames", "blocks", "even blocks",
              "sizes", "gains", "MiB", "at most");
  bool hasFailed = false;
  for (const Row& row : Rows()) {
    try {
      Soak(row, seed).Run(static_cast<std::uint64_t>(frames * row.share));
    } catch (const std::exception& failure) {
      std::printf("FAILED: %s, %s\n", row.name, failure.what());
      hasFailed = true;
    }
    std::fflush(stdout);
  }
  return hasFailed ? EXIT_FAILURE : EXIT_SUCCESS;
}
