#pragma once

// What an x86-64 processor says about itself. Every question is a pure function of CPUID's answers,
// so that a test can ask it of any processor.

#include "kernels/inline.h"
#include "kernels/ipps.h"

#include <xmmintrin.h>

namespace Orvik::Tesmo::Kernels {

struct CpuidLeaf {
  std::uint32_t eax, ebx, ecx, edx;
};
/// Reads any leaf up to the largest, which leaf 0 returns.
using CpuidReader = CpuidLeaf (*)(std::uint32_t leaf, std::uint32_t subLeaf);

struct CpuFeatures {
  bool mmx, sse, sse2, sse3, ssse3, sse41, sse42, movbe, avx, fma, avx2, avx512;
};

/// `leaf1` and `leaf7` are CPUID leaves 1 and 7, the latter 0 where there is none; `xcr0` is the
/// low half of the register of that name, 0 where the operating system has not enabled it. `avx`,
/// `fma` and `avx2` are true only where the system also saves the AVX registers of a thread.
/// `avx512` stands for F, DQ and VL together, and for a system that saves their registers, too.
CpuFeatures FeaturesOf(const CpuidLeaf& leaf1, const CpuidLeaf& leaf7, std::uint32_t xcr0);
/// ippGetMaxCacheSizeB for any processor; `bytes` is always written.
IppStatus MaxCacheSize(CpuidReader cpuid, std::int32_t& bytes);

/// MXCSR: how this thread computes, and which exceptions it has raised.
struct ControlRegister {
  using Bits = unsigned;
  static constexpr Bits raised = 0x3F, invalid = 0x01, divisionByZero = 0x04;
  /// Denormal operands count as zero, and denormal results become zero.
  static constexpr Bits denormalsAreZero = 0x0040, flushToZero = 0x8000;

  static KERNELS_INLINE Bits Read() { return _mm_getcsr(); }
  static KERNELS_INLINE void Write(Bits bits) { _mm_setcsr(bits); }
  static KERNELS_INLINE constexpr Bits WithoutTraps(Bits bits) { return bits | 0x1F80; }
};

}  // namespace Orvik::Tesmo::Kernels
