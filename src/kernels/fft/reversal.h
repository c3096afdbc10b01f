// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
//
// Bit reversal of whole vectors of M = 2^L interleaved complex values, with the first pass on the
// way: radix 4 on rows M/4 apart, which end up next to each other. It leaves groups of four real
// and four imaginary parts, whatever the width of the later passes.
#pragma once

#include "kernels/complex.h"
#include "kernels/fft/passes.h"
#include "kernels/fft/plan.h"

#include <cstring>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// Four rows M/4 apart of four columns, behind the first pass: four groups, to as many rows.
template <Direction dir>
struct Patch {
  FirstButterflies<dir, Vec4> left, right;
  static KERNELS_INLINE Patch Load(const float* p, std::ptrdiff_t M) {
    using Half = FirstButterflies<dir, Vec4>;
    return {Half::Load(p, M / 2), Half::Load(p + 4, M / 2)};
  }
  KERNELS_INLINE void Store(float* p, std::ptrdiff_t M) const {
    left.even.StoreU(p);
    right.even.StoreU(p + M / 2);
    left.odd.StoreU(p + M);
    right.odd.StoreU(p + 3 * M / 2);
  }
};

/// Exchanges every patch with its partner. The four patches of a tile of 8 x 8 values are exchanged
/// together, so that each cache line is read and written once.
template <Direction dir>
void ReverseInPlace(float* data, const std::int32_t* bitRev, std::ptrdiff_t M) {
  for (std::ptrdiff_t tile = 0; tile < M / 64; ++tile) {
    const std::ptrdiff_t partner = bitRev[8 * tile] / 16;
    if (tile > partner) continue;
    for (std::ptrdiff_t column = 2 * tile; column < 2 * tile + 2; ++column)
      for (std::ptrdiff_t here = column; here < M / 16; here += M / 32) {
        const std::ptrdiff_t there = bitRev[4 * here] / 8;
        if (tile == partner && here > there) continue;
        const auto a = Patch<dir>::Load(data + 8 * here, M);
        const auto b = Patch<dir>::Load(data + 8 * there, M);
        a.Store(data + 8 * there, M);
        b.Store(data + 8 * here, M);
      }
  }
}

// Large vectors: the top and the low tileBits bits are reversed inside a tile of rows M/64 apart,
// the middle by exchanging tiles.

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

/// The first pass on a row of a reversed tile.
template <Direction dir>
KERNELS_INLINE void FirstPassOfRow(const float* in, float* out) {
  for (int i = 0; i < 2 << tileBits; i += 16) {
    const auto row = [&](int r) { return Vec4::GatherPairs(in + i + 2 * r, 8); };
    const FirstButterflies<dir, Vec4> y(row(0), row(2), row(1), row(3));
    y.even.StoreU(out + i);
    y.odd.StoreU(out + i + 8);
  }
}

/// src may be dst. `work` holds two tiles.
template <Direction dir>
void ReverseTiled(const float* src, float* dst, const std::int32_t* bitRev, std::ptrdiff_t M,
                  float* work) {
  constexpr int rows = 1 << tileBits, row = 2 * rows;
  const std::ptrdiff_t blocks = M / tileValues, rowStride = 2 * M / rows;
  const std::int32_t* tileTable = bitRev + blocks;
  float *tileA = work, *tileB = work + 2 * tileValues;
  const auto gather = [&](float* tile, std::ptrdiff_t at) {
    for (int r = 0; r < rows; ++r)
      std::memcpy(tile + r * row, src + 2 * at + r * rowStride, sizeof(float) * row);
    ReverseTile(tile, tileTable);
  };
  const auto scatter = [&](const float* tile, std::ptrdiff_t at) {
    for (int r = 0; r < rows; ++r)
      FirstPassOfRow<dir>(tile + r * row, dst + 2 * at + r * rowStride);
  };
  for (std::ptrdiff_t i = 0; i < blocks; ++i) {
    const std::ptrdiff_t a = i << tileBits, b = bitRev[i];
    if (a > b) continue;
    gather(tileA, a);
    if (a < b) {
      gather(tileB, b);
      scatter(tileB, a);
    }
    scatter(tileA, b);
  }
}

/// src may be dst; `work` as above, used from tiledFrom on.
template <Direction dir>
void Reverse(const float* src, float* dst, const std::int32_t* bitRev, int L, float* work) {
  const std::ptrdiff_t M = std::ptrdiff_t{1} << L;
  if (L >= tiledFrom) return ReverseTiled<dir>(src, dst, bitRev, M, work);
  if (src != dst && L < copiedFrom) return FirstPass<dir, Vec4>(src, dst, bitRev, M);
  if (src != dst) std::memcpy(dst, src, sizeof(float) * 2 * static_cast<std::size_t>(M));
  ReverseInPlace<dir>(dst, bitRev, M);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
