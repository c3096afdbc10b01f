#pragma once

// What every build defines, of all builds.

#define KERNELS_BUILD sse3
#include "kernels/builds/members.h"
#undef KERNELS_BUILD
#define KERNELS_BUILD ssse3
#include "kernels/builds/members.h"
#undef KERNELS_BUILD
#define KERNELS_BUILD sse3b
#include "kernels/builds/members.h"
#undef KERNELS_BUILD
#define KERNELS_BUILD sse41
#include "kernels/builds/members.h"
#undef KERNELS_BUILD
#define KERNELS_BUILD avx
#include "kernels/builds/members.h"
#undef KERNELS_BUILD
