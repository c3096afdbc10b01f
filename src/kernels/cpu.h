#pragma once

// What the processor tells of itself. Every question is a pure function of CPUID's answers, so that
// a test can ask it of any processor.

#include "kernels/ipps.h"

namespace Orvik::Tesmo::Kernels {

struct CpuidLeaf {
  std::uint32_t eax, ebx, ecx, edx;
};
/// Any leaf up to the maximum that leaf 0 gives.
using CpuidReader = CpuidLeaf (*)(std::uint32_t leaf, std::uint32_t subLeaf);

struct CpuFeatures {
  bool mmx, sse, sse2, sse3, ssse3, sse41, sse42, movbe, avx;
};

/// `leaf1` is CPUID leaf 1, `xcr0` the low half of the register of that name (read only where the
/// operating system has enabled it: 0 otherwise). AVX counts when the system also saves its
/// registers.
CpuFeatures FeaturesOf(const CpuidLeaf& leaf1, std::uint32_t xcr0);

/// The index of the best build that needs nothing beyond `f`.
std::int32_t BestVariant(const CpuFeatures& f);

/// ippGetMaxCacheSizeB for any processor; `bytes` is always written.
IppStatus MaxCacheSize(CpuidReader cpuid, std::int32_t& bytes);

}  // namespace Orvik::Tesmo::Kernels
