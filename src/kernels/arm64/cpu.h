#pragma once

// What an ARM64 processor says about itself: nothing that the kernels would have to ask.

#include "kernels/inline.h"
#include "kernels/ipps.h"

namespace Orvik::Tesmo::Kernels {

/// Every ARM64 processor that runs Linux has the four-lane registers, with all their operations.
struct CpuFeatures {};

/// FPCR, which says how this thread computes, in the upper half, and FPSR, which says what
/// exceptions it has raised and whether an integer operation has saturated, in the lower.
struct ControlRegister {
  using Bits = std::uint64_t;
  static constexpr Bits raised = 0x0800'009F, invalid = 0x01, divisionByZero = 0x02;
  /// One bit is both: denormal operands count as zero, and denormal results become zero.
  static constexpr Bits denormalsAreZero = Bits{1} << (32 + 24), flushToZero = denormalsAreZero;

  static KERNELS_INLINE Bits Read() {
    Bits control, status;
    asm volatile("mrs %0, fpcr\n\tmrs %1, fpsr" : "=r"(control), "=r"(status) : : "memory");
    return control << 32 | (status & 0xFFFFFFFF);
  }
  static KERNELS_INLINE void Write(Bits bits) {
    asm volatile("msr fpcr, %0\n\tmsr fpsr, %1"
                 :
                 : "r"(bits >> 32), "r"(bits & 0xFFFFFFFF)
                 : "memory");
  }
  static KERNELS_INLINE constexpr Bits WithoutTraps(Bits bits) {
    return bits & ~(Bits{0x9F00} << 32);
  }
};

}  // namespace Orvik::Tesmo::Kernels
