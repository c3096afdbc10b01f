// Every vector kernel of every build that this processor runs.

#include "kernels/random_input.h"
#include "kernels/vector_check.h"

#include <gtest/gtest.h>

using namespace KernelTest;

TEST(Vector, KernelsMeanTheirFormula) {
  RandomInput random;
  for (const Members& m : AllMembers())
    for (int i = 0; i < 30000; ++i) {
      Input input = random.Next();
      CheckVector(m, input);
    }
}
