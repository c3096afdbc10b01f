// AVX, 256-bit registers throughout; no fused operations.
#define KERNELS_BUILD avx

#include "kernels/x86_64/vec8.h"

#include "kernels/build.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec8;
constexpr Choice choice = {{&CpuFeatures::avx}, false};
constexpr Limits limits = {8, 7, 19, 19, {{19, 4, 10}, {23, 8, 14}, {23, 8, 14}, {23, 8, 14}}};
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/build.inl"
