// Transforms of 2^order values: any order and flag to the planner, then real, packed and complex
// transforms on guarded memory.

#include "kernels/planned_transforms.h"

namespace {

using namespace KernelTest;

constexpr int mostOrder = 15;  // of transforms that run here

/// Sizes are a matter of order and flag alone, and of no memory.
void CheckSizes(const Members& m, int order, int flag, int hint) {
  int spec = -7, init = -7, work = -7;
  const IppStatus wanted = order < 0 || order > 30 ? ippStsFftOrderErr
                           : !IsFlag(flag)         ? ippStsFftFlagErr
                           : order > 29            ? ippStsFftOrderErr
                                                   : ippStsNoErr;
  const IppStatus status = m.ippsFFTGetSize_R_32f(order, flag, hint, &spec, &init, &work);
  Expect(status == wanted, "sizes of order %d, flag %d: status %d", order, flag, status);
  Expect(status == ippStsNoErr ? spec > 0 && init >= 0 && work >= 0
                               : spec == -7 && init == -7 && work == -7,
         "sizes of order %d", order);
  if (status == ippStsNoErr) return;
  IppsFFTSpec_R_32f* made = nullptr;
  Expect(m.ippsFFTInitAlloc_R_32f(&made, order, flag, hint) == wanted && !made, "a refused plan");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const Members& m = MembersOf(input.Byte());
  const std::uint8_t kind = input.Byte();
  if (kind % 8 == 7) {
    const int order = input.Flag() ? input.Int(-2, 32) : input.Int(INT32_MIN, INT32_MAX);
    CheckSizes(m, order, input.Flag() ? input.Int(-1, 9) : input.Int(INT32_MIN, INT32_MAX),
               input.Int(-1, 9));
    return 0;
  }
  const int order = input.Byte() % 8 ? input.Int(0, 9) : input.Int(10, mostOrder);
  const int flag = input.Pick(flags);
  const Transform transform =
      kind % 2 ? ComplexFft(m, order, flag) : RealFft(m, input, order, flag);
  TransformCheck(transform, input).Run(input.Pick(signals));
  return 0;
}
