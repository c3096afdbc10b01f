// NEON, which every ARM64 processor has. The plan limits are those of sse3: they, and the results,
// are the same on both.
#define KERNELS_BUILD neon

#include "kernels/vec4.h"

#include "kernels/build.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec4;
constexpr Choice choice = {{}, false};
constexpr Limits limits = {4, 6, 16, 17, {{17, 4, 9}, {18, 4, 10}, {21, 6, 13}, {22, 8, 15}}};
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/build.inl"
