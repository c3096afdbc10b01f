// SSE, SSE2 and SSE3: what runs when nobody chooses.
#define KERNELS_BUILD sse3

#include "kernels/vec4.h"

#include "kernels/builds/limits.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec4;
constexpr const Limits& limits = limitsOf[Sse3];
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/builds/members.inl"
