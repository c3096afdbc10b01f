// Real and complex transforms of 2^order values on guarded memory.

#include "kernels/planned_transforms.h"

namespace {

using namespace KernelTest;

constexpr int mostOrder = 15;  // of transforms that run here

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const Members& m = MembersOf(input.Byte());
  const std::uint8_t kind = input.Byte();
  const int order = input.Byte() % 8 ? input.Int(0, 9) : input.Int(10, mostOrder);
  const int flag = input.Pick(flags);
  const Transform transform =
      kind % 2 ? ComplexFft(m, order, flag) : RealFft(m, input, order, flag);
  TransformCheck(transform, input).Run(input.Pick(signals));
  return 0;
}
