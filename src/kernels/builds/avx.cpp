// AVX, 256-bit registers throughout; no fused operations.
#define KERNELS_BUILD avx

#include "kernels/vec8.h"

#include "kernels/builds/limits.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec8;
constexpr const Limits& limits = limitsOf[Avx];
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/builds/members.inl"
