// Transforms of 2^order values: any order and flag to the planner, then real, packed and complex
// transforms on guarded memory.

#include "members.h"
#include "transform.h"

namespace {

using namespace Fuzz;

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

/// A spec in memory of the caller's, of exactly the sizes asked for, anywhere.
void CheckReal(const Members& m, Input& input, int order, int flag) {
  static GuardedRoom specRoom(1 << 20), initRoom(1 << 18);
  int specSize = 0, initSize = 0, workSize = 0;
  m.ippsFFTGetSize_R_32f(order, flag, 0, &specSize, &initSize, &workSize);
  IppsFFTSpec_R_32f* spec = nullptr;
  const bool own = input.Flag();
  if (own) {
    Ipp8u* const memory = Place<Ipp8u>(specRoom, input, static_cast<std::size_t>(specSize));
    Ipp8u* const init = Place<Ipp8u>(initRoom, input, static_cast<std::size_t>(initSize));
    Expect(m.ippsFFTInit_R_32f(&spec, order, flag, 0, memory, initSize > 0 ? init : nullptr) ==
               ippStsNoErr,
           "no plan of order %d", order);
    std::memset(init, 0xEE, static_cast<std::size_t>(initSize));
  } else {
    Expect(m.ippsFFTInitAlloc_R_32f(&spec, order, flag, 0) == ippStsNoErr, "no plan of order %d",
           order);
  }
  const bool isInPlace = input.Flag();  // by the entries of that name
  const auto bound = [&](auto apart, auto inPlace) -> Transform::Run {
    return [=, &spec](const float* src, float* dst, Ipp8u* work) {
      return isInPlace && src == dst ? inPlace(dst, spec, work) : apart(src, dst, spec, work);
    };
  };
  Transform transform = {m.name, std::size_t{1} << order, true, flag,
                         static_cast<std::size_t>(workSize)};
  transform.forward = bound(m.ippsFFTFwd_RToCCS_32f, m.ippsFFTFwd_RToCCS_32f_I);
  transform.inverse = bound(m.ippsFFTInv_CCSToR_32f, m.ippsFFTInv_CCSToR_32f_I);
  TransformCheck(transform, input).Run();
  Expect(m.ippsFFTFree_R_32f(spec) == ippStsNoErr, "the plan does not go");
  if (own) Expect(specRoom.Intact() && initRoom.Intact(), "planning wrote beside its memory");
}

void CheckComplex(const Members& m, Input& input, int order, int flag) {
  IppsFFTSpec_C_32fc* spec = nullptr;
  Expect(m.ippsFFTInitAlloc_C_32fc(&spec, order, flag, 0) == ippStsNoErr, "no plan of order %d",
         order);
  int workSize = 0;
  m.ippsFFTGetBufSize_C_32fc(spec, &workSize);
  Transform transform = {m.name, std::size_t{1} << order, false, flag,
                         static_cast<std::size_t>(workSize)};
  transform.forward = Bound(m.ippsFFTFwd_CToC_32fc, spec);
  transform.inverse = Bound(m.ippsFFTInv_CToC_32fc, spec);
  TransformCheck(transform, input).Run();
  Expect(m.ippsFFTFree_C_32fc(spec) == ippStsNoErr, "the plan does not go");
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
  if (kind % 2 == 0)
    CheckReal(m, input, order, flag);
  else
    CheckComplex(m, input, order, flag);
  return 0;
}
