// Every vector kernel of every build.

#include "kernels/vector_check.h"

using namespace KernelTest;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const Members& m = MembersOf(input.Byte());
  const int kind = input.Byte() % 8;
  if (kind == 1)
    CheckInterleaving(m, input);
  else if (kind == 2)
    CheckComplex(m, input);
  else
    CheckElements(m, input.Pick(kernels), input);
  return 0;
}
