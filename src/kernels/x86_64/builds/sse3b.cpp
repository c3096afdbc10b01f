// SSE3 with plan limits of its own.
#define KERNELS_BUILD sse3b

#include "kernels/vec4.h"

#include "kernels/build.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec4;
constexpr Choice choice = {{}, true};
constexpr Limits limits = {4, 6, 15, 16, {{16, 4, 10}, {19, 6, 14}, {21, 8, 14}, {21, 8, 14}}};
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/build.inl"
