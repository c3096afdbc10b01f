#pragma once

// The layer through which all sample arithmetic of the audio path goes: one dispatched kernel per
// operation, its status checked.
//
// Samples are 32-bit floats; lengths are counts of samples. No operation allocates, throws, blocks
// or answers anything: a status other than ippStsNoErr goes to ReportAssertionFailure and the
// caller goes on. Statuses below zero (null pointer, `len` below 1, `ch_num` below 1) mean that
// nothing was written; those above (an interleaved buffer off a 16-byte boundary, the root of a
// negative sample) that all was. Re-entrant, on any thread.
//
// `len` is at most INT_MAX; beyond it the hook is called and the low 32 bits count.

#include <cstddef>
#include <cstdint>

namespace Orvik::Tesmo::SignalPrimitives {

/// pDst[i] = pSrc[i]. The ranges are apart or equal.
void Copy(const float* pSrc, float* pDst, std::size_t len);

/// pDst[c][i] = pSrc[i * ch_num + c]; `len` samples per channel.
void Deinterleave(const float* pSrc, std::int32_t ch_num, std::int32_t len, float* const* pDst);

/// pDst[i * ch_num + c] = pSrc[c][i]; `len` samples per channel.
void Interleave(const float* const* pSrc, std::int32_t ch_num, std::int32_t len, float* pDst);

/// pDst[i] = pSrc1[i] + pSrc2[i]
void Add(const float* pSrc1, const float* pSrc2, float* pDst, std::size_t len);

/// pSrcDst[i] += pSrc[i] * val; the product is rounded before the sum.
void AddProductC(const float* pSrc, float val, float* pSrcDst, std::size_t len);

/// pDst[i] = pSrc[i] * val. 1 copies and 0 writes zeros, whatever pSrc holds (NaN, infinity).
void MulC(const float* pSrc, float val, float* pDst, std::size_t len);

/// pDst[i] = pSrc1[i] * pSrc2[i]
void Mul(const float* pSrc1, const float* pSrc2, float* pDst, std::size_t len);

/// pSrcDst[i] *= pSrc[i]
void Mul_I(const float* pSrc, float* pSrcDst, std::size_t len);

/// pSrcDst[i] = square root of pSrcDst[i]; NaN at negative samples.
void Sqrt_I(float* pSrcDst, std::size_t len);

/// `len` as the kernels take it: its low 32 bits, after the hook where it is above INT_MAX.
std::int32_t IntFromSize(std::size_t len);

/// The assertion hook; its body is empty, and a program that links the static library may bring its
/// own. `expression`, `file` and `function` are zero-terminated and static; `message` is null.
void ReportAssertionFailure(const char* expression, const char* file, std::int32_t line,
                            const char* function, const char* message);

}  // namespace Orvik::Tesmo::SignalPrimitives
