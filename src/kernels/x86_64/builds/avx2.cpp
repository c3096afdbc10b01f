// AVX2 and FMA, 256-bit registers; fused operations in transforms and complex products.
#define KERNELS_BUILD avx2

#include "kernels/x86_64/fused.h"

#include "kernels/build.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec8;
constexpr Choice choice = {{&CpuFeatures::avx2, &CpuFeatures::fma}, false};
constexpr Limits limits = {8, 7, 19, 19, {{19, 4, 10}, {23, 8, 14}, {23, 8, 14}, {23, 8, 14}}};
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/build.inl"
