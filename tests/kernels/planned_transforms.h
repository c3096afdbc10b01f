#pragma once

// The transforms of a build as TransformCheck takes them; each frees its plan when it goes.

#include "kernels/members.h"
#include "kernels/transform_check.h"

#include <memory>

namespace KernelTest {

/// Makes a plan, which frees itself.
template <class Spec, class... Arguments>
std::shared_ptr<Spec> Plan(IppStatus (*make)(Spec**, Arguments...), IppStatus (*free)(Spec*),
                           std::common_type_t<Arguments>... arguments) {
  Spec* spec = nullptr;
  const IppStatus status = make(&spec, arguments...);
  Expect(status == ippStsNoErr && spec, "no plan: status %d", status);
  return {spec, free};
}

/// The transform with a plan and the plan's entries on real or complex values.
template <class Value, class Spec>
Transform WithPlan(Transform transform, const std::shared_ptr<Spec>& spec,
                   IppStatus (*forward)(const Value*, Value*, const Spec*, Ipp8u*),
                   IppStatus (*inverse)(const Value*, Value*, const Spec*, Ipp8u*)) {
  const auto bound = [&](auto entry) {
    return [entry, plan = spec.get()](const float* src, float* dst, Ipp8u* work) {
      return entry(reinterpret_cast<const Value*>(src), reinterpret_cast<Value*>(dst), plan, work);
    };
  };
  transform.forward = bound(forward);
  transform.inverse = bound(inverse);
  transform.plan = spec;
  return transform;
}

inline Transform RealDft(const Members& m, int length, int flag) {
  const auto spec = Plan(m.ippsDFTInitAlloc_R_32f, m.ippsDFTFree_R_32f, length, flag, 0);
  int workSize = 0;
  Expect(m.ippsDFTGetBufSize_R_32f(spec.get(), &workSize) == ippStsNoErr, "no work size");
  const auto N = static_cast<std::size_t>(length), work = static_cast<std::size_t>(workSize);
  return WithPlan({m.name, N, true, flag, anyLengthTolerance, work}, spec, m.ippsDFTFwd_RToCCS_32f,
                  m.ippsDFTInv_CCSToR_32f);
}

/// It takes work buffers of its own.
inline Transform ComplexDft(const Members& m, int length, int flag) {
  const auto spec = Plan(m.ippsDFTInitAlloc_C_32fc, m.ippsDFTFree_C_32fc, length, flag, 0);
  return WithPlan({m.name, static_cast<std::size_t>(length), false, flag, anyLengthTolerance}, spec,
                  m.ippsDFTFwd_CToC_32fc, m.ippsDFTInv_CToC_32fc);
}

inline Transform ComplexFft(const Members& m, int order, int flag) {
  const auto spec = Plan(m.ippsFFTInitAlloc_C_32fc, m.ippsFFTFree_C_32fc, order, flag, 0);
  int workSize = 0;
  Expect(m.ippsFFTGetBufSize_C_32fc(spec.get(), &workSize) == ippStsNoErr, "no work size");
  const std::size_t N = std::size_t{1} << order, work = static_cast<std::size_t>(workSize);
  return WithPlan({m.name, N, false, flag, FftTolerance(order, flag), work}, spec,
                  m.ippsFFTFwd_CToC_32fc, m.ippsFFTInv_CToC_32fc);
}

/// The input chooses whether the spec lives in memory of the caller's, of exactly the sizes asked
/// for, anywhere, and whether one array for both sides goes to the entries for that.
inline Transform RealFft(const Members& m, Input& input, int order, int flag) {
  static GuardedRoom specRoom, initRoom;
  int specSize = 0, initSize = 0, workSize = 0;
  m.ippsFFTGetSize_R_32f(order, flag, 0, &specSize, &initSize, &workSize);
  std::shared_ptr<IppsFFTSpec_R_32f> spec;
  if (input.Flag()) {
    Ipp8u* const memory = Place<Ipp8u>(specRoom, input, static_cast<std::size_t>(specSize));
    Ipp8u* const init = Place<Ipp8u>(initRoom, input, static_cast<std::size_t>(initSize));
    spec = Plan(m.ippsFFTInit_R_32f, m.ippsFFTFree_R_32f, order, flag, 0, memory,
                initSize > 0 ? init : nullptr);
    Expect(specRoom.Intact() && initRoom.Intact(), "planning wrote beside its memory");
    std::memset(init, 0xEE, static_cast<std::size_t>(initSize));
  } else {
    spec = Plan(m.ippsFFTInitAlloc_R_32f, m.ippsFFTFree_R_32f, order, flag, 0);
  }
  const bool isInPlace = input.Flag();
  const auto bound = [&](auto apart, auto inPlace) -> Transform::Run {
    return [=, plan = spec.get()](const float* src, float* dst, Ipp8u* work) {
      return isInPlace && src == dst ? inPlace(dst, plan, work) : apart(src, dst, plan, work);
    };
  };
  Transform transform = {m.name, std::size_t{1} << order,   true,
                         flag,   FftTolerance(order, flag), static_cast<std::size_t>(workSize)};
  transform.forward = bound(m.ippsFFTFwd_RToCCS_32f, m.ippsFFTFwd_RToCCS_32f_I);
  transform.inverse = bound(m.ippsFFTInv_CCSToR_32f, m.ippsFFTInv_CCSToR_32f_I);
  transform.plan = spec;
  return transform;
}

}  // namespace KernelTest
