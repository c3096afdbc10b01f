// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

#include "kernels/complex.h"
#include "kernels/memory.h"

#include <cstring>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

// Between planar channels and interleaved frames, in blocks of frames. Each function moves as many
// whole blocks as there are and returns the number of frames that it has moved.

/// Calls block(i) for every whole block of `width` frames, two in each turn of the loop.
template <int width, class Block>
KERNELS_INLINE std::ptrdiff_t ForEachBlock(std::ptrdiff_t len, Block block) {
  std::ptrdiff_t i = 0;
  for (; i <= len - 2 * width; i += 2 * width) {
    block(i);
    block(i + width);
  }
  if (i <= len - width) {
    block(i);
    i += width;
  }
  return i;
}
/// Stores in rising order: to an unaligned destination, the other order takes 1.4 times as long
/// with 128-bit registers.
template <class V>
KERNELS_INLINE std::ptrdiff_t InterleavePair(const float* a, const float* b, std::ptrdiff_t len,
                                             float* pDst) {
  return ForEachBlock<V::width>(len, [=](std::ptrdiff_t at) {
    V lo, hi;
    Interleave(V::LoadU(a + at), V::LoadU(b + at), lo, hi);
    lo.StoreU(pDst + 2 * at);
    KeepOrder();
    hi.StoreU(pDst + 2 * at + V::width);
  });
}
template <class V>
KERNELS_INLINE std::ptrdiff_t DeinterleavePair(const float* pSrc, std::ptrdiff_t len, float* a,
                                               float* b) {
  return ForEachBlock<V::width>(len, [=](std::ptrdiff_t at) {
    const auto z = Complex<V>::LoadInterleaved(pSrc + 2 * at);
    z.re.StoreU(a + at);
    z.im.StoreU(b + at);
  });
}

/// Four neighbouring channels of frames of `stride` floats.
template <class V>
KERNELS_INLINE std::ptrdiff_t InterleaveQuad(const float* const* c, std::ptrdiff_t len, float* pDst,
                                             std::ptrdiff_t stride) {
  std::ptrdiff_t i = 0;
  for (; i <= len - V::width; i += V::width) {
    V r0 = V::LoadU(c[0] + i), r1 = V::LoadU(c[1] + i);
    V r2 = V::LoadU(c[2] + i), r3 = V::LoadU(c[3] + i);
    TransposeLanes(r0, r1, r2, r3);
    float* d = pDst + i * stride;
    r0.StoreLanes(d, 4 * stride);
    r1.StoreLanes(d + stride, 4 * stride);
    r2.StoreLanes(d + 2 * stride, 4 * stride);
    r3.StoreLanes(d + 3 * stride, 4 * stride);
  }
  return i;
}
template <class V>
KERNELS_INLINE std::ptrdiff_t DeinterleaveQuad(const float* pSrc, std::ptrdiff_t stride,
                                               std::ptrdiff_t len, float* const* c) {
  std::ptrdiff_t i = 0;
  for (; i <= len - V::width; i += V::width) {
    const float* s = pSrc + i * stride;
    V r0 = V::LoadLanes(s, 4 * stride), r1 = V::LoadLanes(s + stride, 4 * stride);
    V r2 = V::LoadLanes(s + 2 * stride, 4 * stride), r3 = V::LoadLanes(s + 3 * stride, 4 * stride);
    TransposeLanes(r0, r1, r2, r3);
    r0.StoreU(c[0] + i);
    r1.StoreU(c[1] + i);
    r2.StoreU(c[2] + i);
    r3.StoreU(c[3] + i);
  }
  return i;
}

/// Six channels, as of 5.1 sound: two frames fill three lanes. With two lanes, the first has frames
/// i to i + 3 and the second i + 4 to i + 7.
template <class V>
KERNELS_INLINE std::ptrdiff_t InterleaveSix(const float* const* c, std::ptrdiff_t len,
                                            float* pDst) {
  std::ptrdiff_t i = 0;
  for (; i <= len - V::width; i += V::width) {
    const auto load = [&](int channel) { return V::LoadU(c[channel] + i); };
    const V a = load(0), b = load(1), c2 = load(2), d = load(3), e = load(4), f = load(5);
    const V ab[] = {UnpackLo(a, b), UnpackHi(a, b)}, cd[] = {UnpackLo(c2, d), UnpackHi(c2, d)};
    const V ef[] = {UnpackLo(e, f), UnpackHi(e, f)};
    float* out = pDst + 6 * i;
    for (int k = 0; k < 2; ++k, out += 12) {
      UnpackLoPairs(ab[k], cd[k]).StoreLanes(out, 24);
      Shuffle<0, 1, 2, 3>(ef[k], ab[k]).StoreLanes(out + 4, 24);
      UnpackHiPairs(cd[k], ef[k]).StoreLanes(out + 8, 24);
    }
  }
  return i;
}
template <class V>
KERNELS_INLINE std::ptrdiff_t DeinterleaveSix(const float* pSrc, std::ptrdiff_t len,
                                              float* const* c) {
  std::ptrdiff_t i = 0;
  for (; i <= len - V::width; i += V::width) {
    V ab[2], cd[2], ef[2];
    const float* s = pSrc + 6 * i;
    for (int k = 0; k < 2; ++k, s += 12) {
      const V p = V::LoadLanes(s, 24), q = V::LoadLanes(s + 4, 24), r = V::LoadLanes(s + 8, 24);
      ab[k] = Shuffle<0, 1, 2, 3>(p, q);
      cd[k] = Shuffle<2, 3, 0, 1>(p, r);
      ef[k] = Shuffle<0, 1, 2, 3>(q, r);
    }
    const auto split = [&](const V(&x)[2], float* even, float* odd) {
      Shuffle<0, 2, 0, 2>(x[0], x[1]).StoreU(even + i);
      Shuffle<1, 3, 1, 3>(x[0], x[1]).StoreU(odd + i);
    };
    split(ab, c[0], c[1]);
    split(cd, c[2], c[3]);
    split(ef, c[4], c[5]);
  }
  return i;
}

/// Any number of channels: blocks of two, six or four channels, then one by one the frames that
/// fill no block and the channels that fill no four.
template <class V>
inline void InterleaveChannels(const float* const* pSrc, std::ptrdiff_t channels,
                               std::ptrdiff_t len, float* pDst) {
  if (channels == 1) {
    std::memmove(pDst, pSrc[0], sizeof(float) * static_cast<std::size_t>(len));
    return;
  }
  const std::ptrdiff_t quads = channels / 4 * 4;
  std::ptrdiff_t i = 0;
  if (channels == 2)
    i = InterleavePair<V>(pSrc[0], pSrc[1], len, pDst);
  else if (channels == 6)
    i = InterleaveSix<V>(pSrc, len, pDst);
  else
    for (std::ptrdiff_t c = 0; c < quads; c += 4)
      i = InterleaveQuad<V>(pSrc + c, len, pDst + c, channels);
  const std::ptrdiff_t blocks = i, whole = channels == 2 || channels == 6 ? channels : quads;
  for (i = whole == channels ? blocks : 0; i < len; ++i)
    for (std::ptrdiff_t c = i < blocks ? whole : 0; c < channels; ++c)
      pDst[i * channels + c] = pSrc[c][i];
}
template <class V>
inline void DeinterleaveChannels(const float* pSrc, std::ptrdiff_t channels, std::ptrdiff_t len,
                                 float* const* pDst) {
  if (channels == 1) {
    std::memmove(pDst[0], pSrc, sizeof(float) * static_cast<std::size_t>(len));
    return;
  }
  const std::ptrdiff_t quads = channels / 4 * 4;
  std::ptrdiff_t i = 0;
  if (channels == 2)
    i = DeinterleavePair<V>(pSrc, len, pDst[0], pDst[1]);
  else if (channels == 6)
    i = DeinterleaveSix<V>(pSrc, len, pDst);
  else
    for (std::ptrdiff_t c = 0; c < quads; c += 4)
      i = DeinterleaveQuad<V>(pSrc + c, channels, len, pDst + c);
  const std::ptrdiff_t blocks = i, whole = channels == 2 || channels == 6 ? channels : quads;
  for (std::ptrdiff_t c = 0; c < channels; ++c)
    for (i = c < whole ? blocks : 0; i < len; ++i)
      pDst[c][i] = pSrc[i * channels + c];
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
