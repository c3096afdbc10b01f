#pragma once

// What an x86-64 processor says about itself. Every question is a pure function of CPUID's answers,
// so that a test can ask it of any processor.

#include "kernels/ipps.h"

namespace Orvik::Tesmo::Kernels {

struct CpuidLeaf {
  std::uint32_t eax, ebx, ecx, edx;
};
/// Reads any leaf up to the largest, which leaf 0 returns.
using CpuidReader = CpuidLeaf (*)(std::uint32_t leaf, std::uint32_t subLeaf);

struct CpuFeatures {
  bool mmx, sse, sse2, sse3, ssse3, sse41, sse42, movbe, avx;
};

/// `leaf1` is CPUID leaf 1, `xcr0` the low half of the register of that name; 0 where the
/// operating system has not enabled it. `avx` is true only where the system also saves the AVX
/// registers of a thread.
CpuFeatures FeaturesOf(const CpuidLeaf& leaf1, std::uint32_t xcr0);
CpuFeatures FeaturesOfThis();

/// The index of the best build that a processor with these features runs.
std::int32_t BestVariant(const CpuFeatures& features);

/// ippGetMaxCacheSizeB for any processor; `bytes` is always written.
IppStatus MaxCacheSize(CpuidReader cpuid, std::int32_t& bytes);

/// About 1 / sqrt(x), as the processor estimates it, to 11 bits or more.
float EstimateReciprocalRoot(float x);

}  // namespace Orvik::Tesmo::Kernels
