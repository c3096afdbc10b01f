// Every vector kernel of every build.

#include "kernels/vector_check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  const KernelTest::Members& m = KernelTest::MembersOf(input.Byte());
  KernelTest::CheckVector(m, input);
  return 0;
}
