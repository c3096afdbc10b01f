#include "stream/compared_stream.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace TestSupport {

namespace {

constexpr float Untouched = 77.0f;

}  // namespace

ComparedStream::ComparedStream(const StreamMaker& make, const StreamSizes& sizes,
                               std::uint64_t seed, bool fromModel)
    : sizes(sizes), stream(make(sizes)), reference(sizes), generator(seed) {
  if (!stream) throw std::runtime_error("no stream: " + sizes.Text());
  stream->ResetGains();
  if (fromModel) {
    EXPECT_TRUE(stream->SetAudioClassGain(u"Rest", 0.0f));
  }
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

}  // namespace TestSupport
