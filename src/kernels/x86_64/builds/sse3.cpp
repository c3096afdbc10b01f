// SSE, SSE2 and SSE3: what runs when nobody chooses.
#define KERNELS_BUILD sse3

#include "kernels/vec4.h"

#include "kernels/build.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec4;
constexpr Choice choice = {{}, false};
constexpr Limits limits = {4, 6, 16, 17, {{17, 4, 9}, {18, 4, 10}, {21, 6, 13}, {22, 8, 15}}};
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/build.inl"
