// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
//
// Bit reversal of whole vectors of M = 2^L interleaved complex values. A value's index is its top
// bit, the middle bits, its low bit; the table reverses the middle, and two values next to each
// other in two places half a vector apart swap the outer bits among themselves.
#pragma once

#include "kernels/fft/plan.h"
#include "kernels/vec4.h"

#include <cstring>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// Two values at p and two at p + half, the outer bits of their indices swapped.
struct Quad {
  Vec4 low, high;
  static KERNELS_INLINE Quad Load(const float* p, std::ptrdiff_t half) {
    const Vec4 a = Vec4::LoadU(p), b = Vec4::LoadU(p + half);
    return {UnpackLoPairs(a, b), UnpackHiPairs(a, b)};
  }
  KERNELS_INLINE void Store(float* p, std::ptrdiff_t half) const {
    low.StoreU(p);
    high.StoreU(p + half);
  }
};

inline void ReverseCopy(const float* src, float* dst, const std::int32_t* bitRev,
                        std::ptrdiff_t M) {
  for (std::ptrdiff_t i = 0; i < M / 4; ++i)
    Quad::Load(src + 4 * i, M).Store(dst + 2 * static_cast<std::ptrdiff_t>(bitRev[i]), M);
}

inline void ReverseInPlace(float* data, const std::int32_t* bitRev, std::ptrdiff_t M) {
  for (std::ptrdiff_t i = 0; i < M / 4; ++i) {
    const std::ptrdiff_t here = 4 * i, there = 2 * static_cast<std::ptrdiff_t>(bitRev[i]);
    if (here > there) continue;
    const Quad a = Quad::Load(data + here, M), b = Quad::Load(data + there, M);
    a.Store(data + there, M);
    b.Store(data + here, M);
  }
}

// Large vectors: the top and the low tileBits bits are reversed inside a tile of rows M/64 apart,
// the middle by exchanging tiles.

/// The tile's own reversal; `table` as FillBitRev writes it behind the block indices.
inline void ReverseTile(float* tile, const std::int32_t* table) {
  constexpr std::ptrdiff_t half = tileValues;
  constexpr int entries = tileValues / 4, fixed = 1 << (tileBits - 1);
  for (int e = 0; e < entries - fixed; e += 2) {
    float *p = tile + table[e], *q = tile + table[e + 1];
    const Quad a = Quad::Load(p, half), b = Quad::Load(q, half);
    a.Store(q, half);
    b.Store(p, half);
  }
  for (int e = entries - fixed; e < entries; ++e)
    Quad::Load(tile + table[e], half).Store(tile + table[e], half);
}

/// In place; `work` holds two tiles.
inline void ReverseTiled(float* data, const std::int32_t* bitRev, std::ptrdiff_t M, float* work) {
  constexpr std::size_t rowBytes = sizeof(float) * 2 << tileBits;
  constexpr int rows = 1 << tileBits;
  const std::ptrdiff_t blocks = M / tileValues, rowStride = 2 * M / rows;
  const std::int32_t* tileTable = bitRev + blocks;
  float *tileA = work, *tileB = work + 2 * tileValues;
  const auto gather = [&](float* tile, std::int32_t at) {
    for (int r = 0; r < rows; ++r)
      std::memcpy(tile + r * 2 * rows, data + 2 * static_cast<std::ptrdiff_t>(at) + r * rowStride,
                  rowBytes);
    ReverseTile(tile, tileTable);
  };
  const auto scatter = [&](const float* tile, std::int32_t at) {
    for (int r = 0; r < rows; ++r)
      std::memcpy(data + 2 * static_cast<std::ptrdiff_t>(at) + r * rowStride, tile + r * 2 * rows,
                  rowBytes);
  };
  for (std::ptrdiff_t i = 0; i < blocks; ++i) {
    const std::int32_t a = static_cast<std::int32_t>(i) << tileBits, b = bitRev[i];
    if (a > b) continue;
    gather(tileA, a);
    if (a < b) {
      gather(tileB, b);
      scatter(tileB, a);
    }
    scatter(tileA, b);
  }
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
