// Orders 23 to 29: up to 12 GiB of memory and some minutes, so not among the daily tests.
#include "kernels/planned_transforms.h"
#include "kernels/random.h"

#include <gtest/gtest.h>

using namespace KernelTest;

TEST(FftLarge, IsTheDefinitionUpToOrder29) {
  RandomInput random;
  for (const Members& m : AllMembers())
    for (int order = 23; order <= 29; ++order) {
      Input input = random.Next();
      EXPECT_NO_THROW({
        TransformCheck check(RealFft(m, input, order, IPP_FFT_DIV_INV_BY_N), input);
        check.Run(Signal::Noise);
        check.Run(Signal::Impulses);
      });
    }
}
