#include "kernels/fft/plan.h"
#include "kernels/memory.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Orvik::Tesmo::Kernels;

namespace {

using Radices = std::vector<int>;

Radices RadicesOf(const RadixList& list) {
  return {list.radix, list.radix + list.count};
}

TEST(FftPlan, ChoosesRadicesByOrder) {
  const struct {
    int L;
    Radices radices;
  } rows[] = {{6, {4, 4, 4}},           {7, {4, 8, 4}},          {8, {4, 4, 4, 4}},
              {9, {4, 4, 8, 4}},        {10, {4, 8, 8, 4}},      {11, {4, 8, 8, 8}},
              {12, {4, 4, 8, 8, 4}},    {13, {4, 8, 8, 8, 4}},   {14, {4, 8, 8, 8, 8}},
              {15, {4, 4, 8, 8, 8, 4}}, {16, {4, 4, 8, 8, 8, 8}}};
  for (const auto& row : rows)
    EXPECT_EQ(row.radices, RadicesOf(StageRadices(row.L, 8))) << "L " << row.L;
  EXPECT_EQ((Radices{4, 4}), RadicesOf(LevelRadices(4)));
  EXPECT_EQ((Radices{4, 4, 4}), RadicesOf(LevelRadices(6)));
  EXPECT_EQ((Radices{8, 8, 4}), RadicesOf(LevelRadices(8)));
}

TEST(FftPlan, PiecesShrinkFromLevelToLevelAndTheSpecHoldsItsTables) {
  for (const Build* build : builds)
    for (int order = 5; order <= maxOrder; ++order) {
      SCOPED_TRACE(std::string(build->name) + ", order " + std::to_string(order));
      const FftLayout l = LayoutOf(build->limits, order, true);
      EXPECT_LE(l.pieceOrder, maxFlatOrder);
      EXPECT_EQ(l.method == Method::Large, l.levels > 0);
      for (int level = 0, above = order; level < l.levels; ++level) {
        EXPECT_GT(above, l.levelOrder[level]);
        above = l.levelOrder[level];
        EXPECT_GT(above, l.pieceOrder);
      }
      // a spec is aligned to 32 bytes
      const int alignment = AlignmentOf(build->limits.vecWidth);
      EXPECT_EQ(0, l.recombInv.offset % alignment);
      EXPECT_GE(l.specSize, l.recombInv.offset + l.recombInv.bytes + alignment - 32);
    }
}

}  // namespace
