// SSE3 with plan limits of its own.
#define KERNELS_BUILD sse3b

#include "kernels/vec4.h"

#include "kernels/builds/limits.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec4;
constexpr const Limits& limits = limitsOf[Sse3b];
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/builds/members.inl"
