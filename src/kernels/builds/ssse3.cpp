// SSSE3.
#define KERNELS_BUILD ssse3

#include "kernels/vec4.h"

#include "kernels/builds/limits.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {
using Vec = Vec4;
constexpr const Limits& limits = limitsOf[Ssse3];
}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD

#include "kernels/builds/members.inl"
