// Transforms of any length: every length and flag to the planner, the shorter ones run on guarded
// memory.

#include "kernels/dft/describe.h"
#include "kernels/dft/plan.h"
#include "kernels/planned_transforms.h"

namespace {

using namespace KernelTest;
using namespace Orvik::Tesmo::Kernels;

constexpr int mostLength = 1 << 15;  // of transforms that run here

IppStatus WantedStatus(int length, int flag) {
  if (length < 1) return ippStsSizeErr;
  if (!IsFlag(flag)) return ippStsFftFlagErr;
  if (IsPowerOfTwo(length)) return length <= 1 << 29 ? ippStsNoErr : ippStsFftOrderErr;
  if (length >= LengthLimit) return ippStsSizeErr;
  const DftPlan plan = PlanDft(length, DftKind::Real);
  const bool fits = plan.method != DftMethod::Convolution || plan.points < ConvolutionPointLimit;
  return fits ? ippStsNoErr : ippStsSizeErr;
}

void CheckAnyLength(const Members& m, int length, int flag, int hint) {
  const IppStatus wanted = WantedStatus(length, flag);
  Expect(DescribeTransform(length).has_value() == (WantedStatus(length, 8) == ippStsNoErr),
         "the description of length %d", length);
  if (wanted == ippStsNoErr && length > 1 << 18) return;  // a plan of it takes long
  IppsDFTSpec_R_32f* spec = nullptr;
  const IppStatus status = m.ippsDFTInitAlloc_R_32f(&spec, length, flag, hint);
  Expect(status == wanted && (spec != nullptr) == (wanted == ippStsNoErr),
         "length %d, flag %d: status %d, not %d", length, flag, status, wanted);
  if (spec) m.ippsDFTFree_R_32f(spec);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const Members& m = MembersOf(input.Byte());
  const std::uint8_t kind = input.Byte();
  if (kind % 8 == 7) {
    const int length = input.Int(INT32_MIN, INT32_MAX);
    CheckAnyLength(m, input.Flag() ? length : length % (1 << 18),
                   input.Flag() ? input.Pick(flags) : input.Int(INT32_MIN, INT32_MAX),
                   input.Int(-1, 9));
    return 0;
  }
  const int length = input.Int(1, kind % 8 == 6 ? mostLength : kind % 8 > 3 ? 3000 : 300);
  const auto plan = kind & 0x40 ? ComplexDft : RealDft;
  const Transform transform = plan(m, length, input.Pick(flags));
  TransformCheck(transform, input).Run(input.Pick(signals));
  return 0;
}
