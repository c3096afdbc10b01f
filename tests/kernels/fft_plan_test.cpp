#include "kernels/fft/plan.h"

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
    EXPECT_EQ(row.radices, RadicesOf(StageRadices(row.L))) << "L " << row.L;
  EXPECT_EQ((Radices{4, 4}), RadicesOf(LevelRadices(4)));
  EXPECT_EQ((Radices{4, 4, 4}), RadicesOf(LevelRadices(6)));
  EXPECT_EQ((Radices{8, 8, 4}), RadicesOf(LevelRadices(8)));
}

TEST(FftPlan, SizesFollowTheOrder) {
  const struct {
    const Build& build;
    int order, initSize, workSize;
  } rows[] = {
      {sse3::build, 6, 0, 0},
      {sse3::build, 7, 0, 544},
      {sse3::build, 10, 0, 4128},
      {sse3::build, 11, 2112, 8224},
      {sse3::build, 17, 131136, 524320},
      {sse3::build, 18, 262208, 65568},      // 2^13 values of a piece
      {sse3::build, 21, 2097216, 524320},    // 2^16
      {sse3::build, 22, 4194368, 262176},    // 2^15
      {sse3::build, 29, 536870976, 524320},  // pieces of 2^20, then 2^16
      {ssse3::build, 18, 262208, 1048608},
      {ssse3::build, 19, 524352, 131104},  // 2^14
      {sse3b::build, 16, 65600, 262176},
      {sse3b::build, 17, 131136, 32800},  // 2^12
      {sse41::build, 18, 262208, 1048608},
      {sse41::build, 19, 524352, 131104},  // 2^14
      {avx::build, 7, 0, 0},
      {avx::build, 8, 0, 1056},
      {avx::build, 19, 524352, 2097184},
      {avx::build, 20, 1048640, 262176},  // 2^15
  };
  for (const auto& row : rows) {
    const FftLayout layout = LayoutOf(row.build.limits, row.order, true);
    EXPECT_EQ(row.initSize, layout.initSize) << row.build.name << ", order " << row.order;
    EXPECT_EQ(row.workSize, layout.workSize) << row.build.name << ", order " << row.order;
  }
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
      EXPECT_EQ(0, l.recombInv.offset % 32);
      EXPECT_EQ(l.specSize, (l.recombInv.offset + l.recombInv.bytes + 31) / 32 * 32);
    }
}

}  // namespace
