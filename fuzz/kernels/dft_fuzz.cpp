// Transforms of any length: every length and flag to the planner, the shorter ones run on guarded
// memory.

#include "kernels/dft/describe.h"
#include "kernels/planned_transforms.h"

namespace {

using namespace KernelTest;
using namespace Orvik::Tesmo::Kernels;

constexpr int mostLength = 1 << 15;  // of transforms that run here

/// The planner describes the lengths of which a plan can be made, and no other.
void CheckAnyLength(const Members& m, int length, int flag, int hint) {
  const bool fits = DescribeTransform(length).has_value();
  if (fits && IsFlag(flag) && length > 1 << 18) return;  // a plan of it takes long
  IppsDFTSpec_R_32f* spec = nullptr;
  const IppStatus status = m.ippsDFTInitAlloc_R_32f(&spec, length, flag, hint);
  const bool isMade = status == ippStsNoErr;
  Expect(isMade == (fits && IsFlag(flag)) && isMade == (spec != nullptr),
         "length %d, flag %d: status %d", length, flag, status);
  Expect(length < 1 || IsFlag(flag) || status == ippStsFftFlagErr, "flag %d: status %d", flag,
         status);
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
