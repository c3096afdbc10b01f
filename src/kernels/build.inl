// The whole library once more for the build that includes this: its .cpp has set KERNELS_BUILD and
// named its Vec, choice and limits.

#include "kernels/build.h"
#include "kernels/fft/engine.h"

// The flags of the SSE builds let the passes of the FFT compute each address where it is used. The
// loops of the vector kernels and of the DFT are faster with running pointers (GCC 12: 10 % of
// ippsAddProductC_32f, 5 % of a mixed-radix transform).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC push_options
#pragma GCC optimize("ivopts")
#endif

#include "kernels/vector/members.inl"

#include "kernels/fft/members.inl"

#include "kernels/dft/members.inl"

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC pop_options
#endif

#define KERNELS_TEXT(name) #name
#define KERNELS_NAME(name) KERNELS_TEXT(name)

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

constinit const Build build = {
    .name = KERNELS_NAME(KERNELS_BUILD),
    .index = variantIndex,
    .choice = choice,
    .limits = limits,
    .ippsCopy_32f = ippsCopy_32f,
    .ippsAdd_32f = ippsAdd_32f,
    .ippsMul_32f = ippsMul_32f,
    .ippsMul_32f_I = ippsMul_32f_I,
    .ippsMulC_32f = ippsMulC_32f,
    .ippsAddProductC_32f = ippsAddProductC_32f,
    .ippsSqrt_32f_I = ippsSqrt_32f_I,
    .ippsInterleave_32f = ippsInterleave_32f,
    .ippsDeinterleave_32f = ippsDeinterleave_32f,
    .ippsFFTGetSize_R_32f = ippsFFTGetSize_R_32f,
    .ippsFFTInitAlloc_R_32f = ippsFFTInitAlloc_R_32f,
    .ippsFFTFree_R_32f = ippsFFTFree_R_32f,
    .ippsFFTFwd_RToCCS_32f = ippsFFTFwd_RToCCS_32f,
    .ippsFFTInv_CCSToR_32f = ippsFFTInv_CCSToR_32f,
    .ippsFFTFwd_RToCCS_32f_I = ippsFFTFwd_RToCCS_32f_I,
    .ippsFFTInv_CCSToR_32f_I = ippsFFTInv_CCSToR_32f_I,
    .ippsDFTInitAlloc_R_32f = ippsDFTInitAlloc_R_32f,
    .ippsDFTFree_R_32f = ippsDFTFree_R_32f,
    .ippsDFTGetBufSize_R_32f = ippsDFTGetBufSize_R_32f,
    .ippsDFTFwd_RToCCS_32f = ippsDFTFwd_RToCCS_32f,
    .ippsDFTInv_CCSToR_32f = ippsDFTInv_CCSToR_32f,
    .ippsZero_32f = ippsZero_32f,
    .ippsZero_32fc = ippsZero_32fc,
    .ippsMulC_32f_I = ippsMulC_32f_I,
    .ippsConj_32fc = ippsConj_32fc,
    .ippsMul_32fc = ippsMul_32fc,
    .ippsMul_32fc_I = ippsMul_32fc_I,
    .ippsFFTInit_R_32f = ippsFFTInit_R_32f,
    .ippsFFTFwd_RToPack_32f = ippsFFTFwd_RToPack_32f,
    .ippsFFTInitAlloc_C_32fc = ippsFFTInitAlloc_C_32fc,
    .ippsFFTFree_C_32fc = ippsFFTFree_C_32fc,
    .ippsFFTGetBufSize_C_32fc = ippsFFTGetBufSize_C_32fc,
    .ippsFFTFwd_CToC_32fc = ippsFFTFwd_CToC_32fc,
    .ippsFFTInv_CToC_32fc = ippsFFTInv_CToC_32fc,
    .ippsDFTInitAlloc_C_32fc = ippsDFTInitAlloc_C_32fc,
    .ippsDFTFree_C_32fc = ippsDFTFree_C_32fc,
    .ippsDFTFwd_CToC_32fc = ippsDFTFwd_CToC_32fc,
    .ippsDFTInv_CToC_32fc = ippsDFTInv_CToC_32fc,
};

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
