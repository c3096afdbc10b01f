// Every vector kernel of every build that this processor runs.

#include "kernels/random.h"
#include "kernels/vector_check.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

using namespace KernelTest;

namespace {

/// check(build, input) with many inputs, up to the first fault.
template <class Check>
void ForManyInputs(int count, Check check) {
  RandomInput random;
  for (const Members& m : AllMembers())
    for (int i = 0; i < AtMost(count); ++i) {
      Input input = random.Next();
      ASSERT_NO_THROW(check(m, input));
    }
}

class ElementKernels : public testing::TestWithParam<Kernel> {};

TEST_P(ElementKernels, ComputeTheirFormula) {
  ForManyInputs(2500, [](const Members& m, Input& input) { CheckElements(m, GetParam(), input); });
}
INSTANTIATE_TEST_SUITE_P(Vector, ElementKernels, testing::ValuesIn(kernels),
                         [](const auto& kernel) { return kernel.param.name; });

TEST(Vector, InterleavingMovesFramesAndChannels) {
  ForManyInputs(4000, CheckInterleaving);
}
TEST(Vector, ComplexKernelsComputeTheirFormula) {
  ForManyInputs(4000, CheckComplex);
}

// The thread sanitizer has shadow memory for every address, which is more than a machine has here.
#ifndef KALVRIN_SANITIZED
/// Address space of `bytes` bytes that shows the same MiB again and again; null if there is none.
std::shared_ptr<float> Repeated(std::size_t bytes) {
  constexpr std::size_t period = 1 << 20;
  const int file = memfd_create("repeated", MFD_CLOEXEC);
  void* const map = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  bool isMade = map != MAP_FAILED && ftruncate(file, period) == 0;
  for (std::size_t at = 0; isMade && at < bytes; at += period)
    isMade =
        mmap(static_cast<char*>(map) + at, std::min(period, bytes - at), PROT_READ | PROT_WRITE,
             MAP_SHARED | MAP_FIXED | MAP_POPULATE, file, 0) != MAP_FAILED;
  close(file);
  if (!isMade) return nullptr;
  return {static_cast<float*>(map), [bytes](float* start) { munmap(start, bytes); }};
}

TEST(Vector, TwoChannelsInterleaveBeyond2To30Frames) {
  constexpr int frames = (1 << 30) + 24;
  constexpr std::size_t samples = std::size_t{frames} * sizeof(float);
  const auto flat = Repeated(2 * samples), channel = Repeated(samples);
  ASSERT_TRUE(flat && channel);
  float* const planar[] = {channel.get(), channel.get()};
  const Members& m = AllMembers().front();
  std::fill_n(channel.get(), 1 << 18, 3.0F);
  ASSERT_EQ(ippStsNoErr, m.ippsInterleave_32f(planar, 2, frames, flat.get()));
  EXPECT_EQ(3.0F, flat.get()[2 * std::size_t{frames} - 1]);
  flat.get()[1] = 4.0F;
  ASSERT_EQ(ippStsNoErr, m.ippsDeinterleave_32f(flat.get(), 2, frames, planar));
  EXPECT_EQ(4.0F, channel.get()[0]);
}
#endif

}  // namespace
