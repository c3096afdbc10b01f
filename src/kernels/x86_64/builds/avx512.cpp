// AVX-512 (F, DQ, VL), 512-bit registers, fused operations as in avx2.
#define KERNELS_BUILD avx512

#include "kernels/x86_64/vec16.h"

#include "kernels/x86_64/fused.h"

#include "kernels/build.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec16;
// Never timed: no machine at hand had AVX-512, and a processor gets what is faster, not what is
// wider. Measure with `make bench`; where it beats avx2, false here makes it the processor's
// choice.
constexpr bool byHandOnly = true;
constexpr Choice choice = {{&CpuFeatures::avx2, &CpuFeatures::fma, &CpuFeatures::avx512},
                           byHandOnly};
constexpr Limits limits = {16, 9, 19, 19, {{19, 4, 10}, {23, 8, 14}, {23, 8, 14}, {23, 8, 14}}};
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/build.inl"
