#pragma once

/// In every caller, with the caller's instruction set; no copy of the function is left for the
/// linker.
#define KERNELS_INLINE __attribute__((always_inline)) inline
