// Every vector kernel of every build that this processor runs.

#include "kernels/random_input.h"
#include "kernels/vector_check.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sys/mman.h>
#include <unistd.h>

using namespace KernelTest;

TEST(Vector, KernelsMeanTheirFormula) {
  RandomInput random;
  for (const Members& m : AllMembers())
    for (int i = 0; i < 30000; ++i) {
      Input input = random.Next();
      CheckVector(m, input);
    }
}

/// Address space of `bytes` bytes that shows the same `period` bytes again and again.
class Repeated {
public:
  Repeated(std::size_t bytes, std::size_t period) : length(bytes) {
    const int file = memfd_create("repeated", MFD_CLOEXEC);
    isMade = ftruncate(file, static_cast<off_t>(period)) == 0;
    void* const map = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    start = static_cast<unsigned char*>(map);
    for (std::size_t at = 0; isMade && at < bytes; at += period)
      isMade = mmap(start + at, std::min(period, bytes - at), PROT_READ | PROT_WRITE,
                    MAP_SHARED | MAP_FIXED | MAP_POPULATE, file, 0) != MAP_FAILED;
    close(file);
  }
  ~Repeated() { munmap(start, length); }
  Repeated(const Repeated&) = delete;
  Repeated& operator=(const Repeated&) = delete;
  bool isMade;
  float* Floats() const { return reinterpret_cast<float*>(start); }

private:
  std::size_t length;
  unsigned char* start;
};

TEST(Vector, TwoChannelsInterleaveBeyond2To30Frames) {
  constexpr int frames = (1 << 30) + 24;
  constexpr std::size_t period = 1 << 20, samples = std::size_t{frames} * sizeof(float);
  const Repeated flat(2 * samples, period), channel(samples, period);
  ASSERT_TRUE(flat.isMade && channel.isMade);
  float* const x = channel.Floats();
  std::fill_n(x, period / sizeof(float), 3.0F);
  const float* const in[] = {x, x};
  float* const out[] = {x, x};
  const Members& m = AllMembers().front();
  ASSERT_EQ(ippStsNoErr, m.ippsInterleave_32f(in, 2, frames, flat.Floats()));
  EXPECT_EQ(3.0F, flat.Floats()[2 * std::size_t{frames} - 1]);
  flat.Floats()[1] = 4.0F;
  ASSERT_EQ(ippStsNoErr, m.ippsDeinterleave_32f(flat.Floats(), 2, frames, out));
  EXPECT_EQ(4.0F, x[0]);
}
