// The whole library once more for the build that includes this: its .cpp has set KERNELS_BUILD,
// chosen Vec and named its limits.

#include "kernels/builds/members.h"

#include "kernels/vector/members.inl"

#include "kernels/fft/members.inl"

#include "kernels/dft/members.inl"
