#pragma once

// Where plans change, by build: one row each.

#include <cstdint>

namespace Orvik::Tesmo::Kernels {

enum BuildIndex { Sse3, Ssse3, Sse3b, Sse41, Avx, buildCount };

/// From this complex order on (until the next row), a large plan cuts 2^split pieces and gathers
/// blocks of 2^blockBits values.
struct LargeRow {
  int fromOrder, split, blockBits;
};

/// Orders of the real transform; a complex transform of order L has the limits of L + 1.
struct Limits {
  const char* name;
  int lanes;        ///< floats in a register: the group size of the stage layout and its tables
  int directMax;    ///< direct complex kernels up to here, from order 5
  int flatMax;      ///< then the flat plan, whose first pass reverses by itself
  int reversedMax;  ///< then bit reversal and the passes on reversed data; flatMax if there is none
  LargeRow large[4];  ///< then the large plan; unused rows repeat the last
};

constexpr Limits limitsOf[buildCount] = {
    {"sse3", 4, 6, 16, 17, {{17, 4, 9}, {18, 4, 10}, {21, 6, 13}, {22, 8, 15}}},
    {"ssse3", 4, 6, 17, 18, {{18, 4, 10}, {20, 8, 14}, {20, 8, 14}, {20, 8, 14}}},
    {"sse3b", 4, 6, 15, 16, {{16, 4, 10}, {19, 6, 14}, {21, 8, 14}, {21, 8, 14}}},
    {"sse41", 4, 6, 18, 18, {{18, 4, 10}, {20, 8, 14}, {20, 8, 14}, {20, 8, 14}}},
    {"avx", 8, 7, 19, 19, {{19, 4, 10}, {23, 8, 14}, {23, 8, 14}, {23, 8, 14}}},
};

}  // namespace Orvik::Tesmo::Kernels
