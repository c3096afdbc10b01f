#include "stream/stream_checks.h"

#include "support/seed.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

using Orvik::Tesmo::StreamProcessor;

namespace {

constexpr float Untouched = 77.0f;

/// A host's planar arrays, with room behind the block that nobody may write.
struct HostBlock {
  HostBlock(std::uint64_t channels, std::uint64_t frames, float value)
      : samples(channels, std::vector<float>(frames + 8, value)) {
    for (auto& channel : samples)
      pointers.push_back(channel.data());
  }

  std::vector<std::vector<float>> samples;
  std::vector<float*> pointers;
};

void SetUnity(StreamProcessor& stream, bool fromModel) {
  stream.ResetGains();
  if (fromModel) {
    EXPECT_TRUE(stream.SetAudioClassGain(u"Rest", 0.0f));
  }
}

struct Step {
  std::uint64_t frames;
  std::int32_t continuation = 1;
  std::uint64_t times = 1;
};

struct Pattern {
  const char* name;
  StreamSizes sizes;
  std::vector<Step> steps;
};

std::vector<Pattern> FixedPatterns() {
  const StreamSizes divides = {.hop = 8, .sequence = 4, .channels = 2, .block = 8};
  const StreamSizes whole = {.hop = 8, .sequence = 4, .channels = 2, .block = 32};
  const StreamSizes straddles = {.hop = 8, .sequence = 4, .channels = 3, .block = 13};
  const StreamSizes beyond = {.hop = 4, .sequence = 2, .channels = 2, .block = 29};
  const StreamSizes single = {.hop = 6, .sequence = 1, .channels = 1, .block = 6};
  return {
      {"block divides the ring", divides, {{8, 0}, {8, 1, 20}}},
      {"any continuation but 0 runs on", divides, {{8, 5}, {8, -1, 7}, {8, 1, 7}}},
      {"block is the ring", whole, {{32, 1, 6}}},
      {"block straddles the ring's end", straddles, {{13, 1, 25}}},
      {"one window per evaluation", single, {{6, 1, 9}}},
      {"block longer than the ring", beyond, {{29, 1, 9}, {3, 1, 5}, {29, 1, 2}}},
      {"short blocks without prefill stay gapless", straddles, {{13}, {1, 1, 40}, {7, 1, 9}, {13}}},
      {"short blocks eat the lead", divides, {{8, 1, 5}, {3, 1, 9}, {8, 1, 9}, {8, 0}, {8, 1, 9}}},
      {"a single short block", divides, {{8, 1, 3}, {5}, {8, 1, 8}}},
      {"oversized blocks are cut", divides, {{8}, {20, 1, 9}, {1000}, {8, 1, 5}}},
      {"empty blocks", divides, {{0, 0}, {8, 1, 2}, {0}, {8, 1, 2}, {0, 0}, {8, 1, 9}}},
      {"restart at once", divides, {{8, 0}, {8, 0}, {8, 0}, {8, 1, 12}}},
      {"restart in mid-ring", divides, {{8, 1, 6}, {8, 0}, {8, 1, 3}, {8, 0}, {8, 1, 12}}},
      {"restart in mid-block", straddles, {{13, 1, 4}, {6, 0}, {13, 1, 6}, {13, 0}, {13, 1, 6}}},
  };
}

Pattern RandomPattern(std::mt19937_64& generator) {
  const auto upTo = [&](std::uint64_t low, std::uint64_t high) {
    return std::uniform_int_distribution<std::uint64_t>(low, high)(generator);
  };
  StreamSizes sizes = {.hop = upTo(1, 12),
                       .sequence = upTo(1, 5),
                       .channels = upTo(1, 5),
                       .lookahead = upTo(0, 7),
                       .block = upTo(1, 40),
                       .isSpectral = upTo(0, 1) == 1};
  if (upTo(0, 2) == 0) sizes.block = sizes.hop;
  std::vector<Step> steps;
  for (std::uint64_t i = 0; i < 60; ++i)
    steps.push_back({upTo(0, 3) ? sizes.block : upTo(0, sizes.block + 3), upTo(0, 15) ? 1 : 0});
  return {"random", sizes, std::move(steps)};
}

}  // namespace

ComparedStream::ComparedStream(const StreamMaker& make, const StreamSizes& sizes,
                               std::uint64_t seed, bool fromModel)
    : sizes(sizes), stream(make(sizes)), reference(sizes), generator(seed) {
  if (!stream) throw std::runtime_error("no stream: " + sizes.Text());
  SetUnity(*stream, fromModel);
}

void ComparedStream::Process(std::uint64_t frames, std::int32_t continuation, bool inPlace) {
  HostBlock input(sizes.channels, frames, 0.0f);
  HostBlock output(sizes.channels, frames, Untouched);
  std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
  Planar block(sizes.channels, Samples(frames));
  for (std::uint64_t c = 0; c < sizes.channels; ++c)
    for (std::uint64_t i = 0; i < frames; ++i)
      block[c][i] = input.samples[c][i] = signal.value_or(noise(generator));
  const HostBlock before = inPlace ? input : output;
  HostBlock& written = inPlace ? input : output;

  std::optional<Planar> expected;
  try {
    expected = reference.Process(block, continuation != 0);
  } catch (const std::runtime_error&) {
    ++failures;
  }
  bool failed = false;
  try {
    stream->ProcessBlock(input.pointers.data(), written.pointers.data(), frames, continuation);
  } catch (...) {
    failed = true;
    failure = std::current_exception();
  }
  ASSERT_EQ(failed, !expected) << sizes.Text() << "; at " << position;

  const std::uint64_t count = expected ? expected->front().size() : 0;
  for (std::uint64_t c = 0; c < sizes.channels; ++c) {
    for (std::uint64_t i = 0; i < written.samples[c].size(); ++i) {
      const double wanted = i < count ? (*expected)[c][i] : before.samples[c][i];
      ASSERT_NEAR(written.samples[c][i], wanted, i < count ? scale * Tolerance : 0.0)
          << sizes.Text() << "; channel " << c << ", frame " << i << " of a block of " << frames
          << " at " << position << ", continuation " << continuation;
    }
  }
  position += count;
}

void ComparedStream::SetSequenceSize(std::uint64_t size) {
  stream->SetSequenceSize(size);
  sizes.sequence = size;
  reference.Resize(sizes.sequence, sizes.channels);
}

void ComparedStream::SetChannelCount(std::uint64_t count) {
  stream->SetChannelCount(count);
  sizes.channels = count;
  reference.Resize(sizes.sequence, sizes.channels);
}

void CheckLatencies(const StreamMaker& make) {
  const struct {
    std::uint64_t hop, sequence, block, lookahead, latency;
  } rows[] = {
      {256, 4, 128, 0, 1152},  {256, 4, 256, 0, 1024},  {256, 4, 512, 0, 768},
      {256, 4, 300, 0, 1280},  {256, 4, 1024, 0, 1280}, {256, 4, 256, 2, 1536},
      {256, 4, 1, 0, 1279},    {256, 1, 256, 0, 512},   {256, 1, 128, 0, 384},
      {256, 4, 2000, 0, 1280}, {240, 3, 240, 1, 960},   {240, 3, 480, 5, 2160},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Orvik::Tesmo::LatencyFrames(2 * row.hop, row.lookahead, row.sequence, row.block),
              row.latency);
    for (const bool isSpectral : {false, true}) {
      const StreamSizes sizes = {row.hop, row.sequence, 2, row.lookahead, row.block, isSpectral};
      for (const std::uint64_t at : {std::uint64_t{0}, row.hop * row.sequence + 17}) {
        const auto stream = make(sizes);
        ASSERT_TRUE(stream) << sizes.Text();
        SetUnity(*stream, at == 0);
        const std::uint64_t impulse = at + row.latency;
        for (std::uint64_t start = 0; start <= impulse + row.hop; start += row.block) {
          HostBlock block(sizes.channels, row.block, 0.0f);
          if (at >= start && at < start + row.block) block.samples[1][at - start] = 1.0f;
          stream->ProcessBlock(block.pointers.data(), block.pointers.data(), row.block, 1);
          for (std::uint64_t i = 0; i < row.block; ++i) {
            ASSERT_EQ(block.samples[0][i], 0.0f) << sizes.Text() << "; other channel";
            ASSERT_NEAR(block.samples[1][i], start + i == impulse ? 1.0f : 0.0f, Tolerance)
                << sizes.Text() << "; impulse at " << at << ", output " << start + i;
          }
        }
      }
    }
  }
}

void CheckBlockPatterns(const StreamMaker& make) {
  std::vector<Pattern> patterns;
  for (const std::uint64_t lookahead : {0, 2, 5}) {
    for (const bool isSpectral : {false, true}) {
      for (Pattern pattern : FixedPatterns()) {
        pattern.sizes.lookahead = lookahead;
        pattern.sizes.isSpectral = isSpectral;
        patterns.push_back(std::move(pattern));
      }
    }
  }
  std::mt19937_64 generator(TestSeed());
  for (int i = 0; i < 60; ++i)
    patterns.push_back(RandomPattern(generator));

  unsigned turn = 0;
  for (const Pattern& pattern : patterns) {
    SCOPED_TRACE(pattern.name);
    const bool inPlace = turn % 2 == 1;
    const bool fromModel = turn % 3 != 2;
    ++turn;
    ComparedStream compared(make, pattern.sizes, generator(), fromModel);
    for (const Step& step : pattern.steps)
      for (std::uint64_t i = 0; i < step.times; ++i)
        ASSERT_NO_FATAL_FAILURE(compared.Process(step.frames, step.continuation, inPlace));
  }
}

void CheckSizeChanges(const StreamMaker& make) {
  const std::uint64_t huge[] = {0, std::uint64_t{1} << 27, std::uint64_t{1} << 32,
                                std::uint64_t{1} << 62, ~std::uint64_t{0}};
  for (const bool isSpectral : {false, true}) {
    const StreamSizes sizes = {.hop = 8,
                               .sequence = 4,
                               .channels = 2,
                               .lookahead = 1,
                               .block = 16,
                               .isSpectral = isSpectral};
    ComparedStream compared(make, sizes, TestSeed(), true);
    const auto runOn = [&](std::int32_t first) {
      for (int i = 0; i < 9; ++i)
        ASSERT_NO_FATAL_FAILURE(compared.Process(i == 4 ? 11 : 16, i == 0 ? first : 1));
    };
    ASSERT_NO_FATAL_FAILURE(runOn(1));
    // Down to rings shorter than a block and up again, with and without the restart that a host
    // owes the stream; the present size too empties everything.
    const std::int32_t restart = 0, forgotten = 1;
    for (const std::uint64_t size : {8, 1, 3, 3, 4}) {
      SCOPED_TRACE("sequence size " + std::to_string(size));
      compared.SetSequenceSize(size);
      ASSERT_NO_FATAL_FAILURE(runOn(size == 1 ? forgotten : restart));
    }
    for (const std::uint64_t count : {5, 1, 1, 2}) {
      SCOPED_TRACE("channel count " + std::to_string(count));
      compared.SetChannelCount(count);
      ASSERT_NO_FATAL_FAILURE(runOn(count == 5 ? forgotten : restart));
    }
    for (const std::uint64_t refused : huge) {
      SCOPED_TRACE("refused size " + std::to_string(refused));
      compared.Stream().SetSequenceSize(refused);
      compared.Stream().SetChannelCount(refused);
      ASSERT_NO_FATAL_FAILURE(runOn(1));
    }
  }
}

}  // namespace TestSupport
