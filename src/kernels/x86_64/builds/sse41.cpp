// SSE4.1.
#define KERNELS_BUILD sse41

#include "kernels/vec4.h"

#include "kernels/build.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec4;
constexpr Choice choice = {{&CpuFeatures::sse41, &CpuFeatures::ssse3}, false};
constexpr Limits limits = {4, 6, 18, 18, {{18, 4, 10}, {20, 8, 14}, {20, 8, 14}, {20, 8, 14}}};
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/build.inl"
