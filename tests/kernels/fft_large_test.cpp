// Orders 23 to 29: up to 12 GiB of memory and some minutes, so not among the daily tests.
#include "kernels/fft_support.h"

TEST(FftLarge, KeepsItsPropertiesUpToOrder29) {
  for (const auto& build : KernelTest::Builds())
    for (int order = 23; order <= 29; ++order)
      KernelTest::CheckProperties(build, order);
}
