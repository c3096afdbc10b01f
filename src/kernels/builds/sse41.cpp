// SSE4.1.
#define KERNELS_BUILD sse41

#include "kernels/vec4.h"

#include "kernels/builds/limits.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec4;
constexpr const Limits& limits = limitsOf[Sse41];
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/builds/members.inl"
