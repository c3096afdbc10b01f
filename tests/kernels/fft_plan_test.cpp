#include "kernels/fft/plan.h"

#include "kernels/builds.h"

#include <gtest/gtest.h>

using namespace KernelTest;

namespace {

std::string Text(const RadixList& list) {
  std::string text;
  for (int i = 0; i < list.count; ++i)
    text += (i ? " " : "") + std::to_string(list.radix[i]);
  return text;
}

TEST(FftPlan, ChoosesRadicesByOrder) {
  const struct {
    int L;
    const char* radices;
  } rows[] = {{6, "4 4 4"},      {7, "4 8 4"},        {8, "4 4 4 4"},     {9, "4 4 8 4"},
              {10, "4 8 8 4"},   {11, "4 8 8 8"},     {12, "4 4 8 8 4"},  {13, "4 8 8 8 4"},
              {14, "4 8 8 8 8"}, {15, "4 4 8 8 8 4"}, {16, "4 4 8 8 8 8"}};
  for (const auto& row : rows)
    EXPECT_EQ(row.radices, Text(StageRadices(row.L))) << "L " << row.L;
  for (int L = 6; L <= maxFlatOrder; ++L) {
    const RadixList list = StageRadices(L);
    std::int64_t product = 1;
    for (int i = 0; i < list.count; ++i)
      product *= list.radix[i];
    EXPECT_EQ(std::int64_t{1} << L, product) << "L " << L;
  }
  EXPECT_EQ("4 4", Text(LevelRadices(4)));
  EXPECT_EQ("4 4 4", Text(LevelRadices(6)));
  EXPECT_EQ("8 8 4", Text(LevelRadices(8)));
}

TEST(FftPlan, ChangesMethodAtEachBuildsLimits) {
  const struct {
    BuildIndex build;
    int direct, flat, reversed;             // the last order of each
    std::vector<std::array<int, 3>> large;  // L, split, blockBits
  } rows[] = {
      {Sse3,
       6,
       16,
       17,
       {{16, 0, 0}, {17, 4, 9}, {18, 4, 10}, {20, 4, 10}, {21, 6, 13}, {22, 8, 15}, {28, 8, 15}}},
      {Ssse3, 6, 17, 18, {{17, 0, 0}, {18, 4, 10}, {19, 4, 10}, {20, 8, 14}, {28, 8, 14}}},
      {Sse3b,
       6,
       15,
       16,
       {{15, 0, 0}, {16, 4, 10}, {18, 4, 10}, {19, 6, 14}, {20, 6, 14}, {21, 8, 14}, {28, 8, 14}}},
      {Sse41, 6, 18, 18, {{17, 0, 0}, {18, 4, 10}, {19, 4, 10}, {20, 8, 14}, {28, 8, 14}}},
      {Avx, 7, 19, 19, {{18, 0, 0}, {19, 4, 10}, {22, 4, 10}, {23, 8, 14}, {28, 8, 14}}},
  };
  for (const auto& row : rows) {
    const Limits& limits = limitsOf[row.build];
    SCOPED_TRACE(limits.name);
    for (int order = 0; order <= maxOrder; ++order) {
      const Method expected = order <= 4              ? Method::DirectReal
                              : order <= row.direct   ? Method::DirectComplex
                              : order <= row.flat     ? Method::Flat
                              : order <= row.reversed ? Method::Reversed
                                                      : Method::Large;
      EXPECT_EQ(expected, MethodOf(limits, order)) << "order " << order;
      const FftLayout layout = LayoutOf(limits, order, true);
      EXPECT_LE(layout.pieceOrder, row.reversed - 1) << "order " << order;
      EXPECT_EQ(expected == Method::Large, layout.levels > 0) << "order " << order;
    }
    for (const auto& [L, split, blockBits] : row.large) {
      EXPECT_EQ(split, LargeRowOf(limits, L).split) << "L " << L;
      EXPECT_EQ(blockBits, LargeRowOf(limits, L).blockBits) << "L " << L;
    }
  }
}

TEST(FftPlan, SizesFollowTheOrder) {
  const struct {
    BuildIndex build;
    int order, initSize, workSize;
  } rows[] = {
      {Sse3, 0, 0, 0},
      {Sse3, 6, 0, 0},
      {Sse3, 7, 0, 544},
      {Sse3, 9, 0, 2080},
      {Sse3, 10, 0, 4128},
      {Sse3, 11, 2112, 8224},
      {Sse3, 17, 131136, 524320},
      {Sse3, 18, 262208, 65568},      // 2^13 values of a piece
      {Sse3, 21, 2097216, 524320},    // 2^16
      {Sse3, 22, 4194368, 262176},    // 2^15
      {Sse3, 29, 536870976, 524320},  // pieces of 2^20, then 2^16
      {Avx, 7, 0, 0},
      {Avx, 8, 0, 1056},
      {Avx, 19, 524352, 2097184},
      {Avx, 20, 1048640, 262176},
  };
  for (const auto& row : rows) {
    const FftLayout layout = LayoutOf(limitsOf[row.build], row.order, true);
    EXPECT_EQ(row.initSize, layout.initSize) << limitsOf[row.build].name << ", order " << row.order;
    EXPECT_EQ(row.workSize, layout.workSize) << limitsOf[row.build].name << ", order " << row.order;
  }
  for (const Limits& limits : limitsOf)
    for (int order = 5; order <= maxOrder; ++order) {
      const FftLayout l = LayoutOf(limits, order, true);
      EXPECT_EQ(0, l.recombInv.offset % 32);
      EXPECT_EQ(l.specSize, (l.recombInv.offset + l.recombInv.bytes + 31) / 32 * 32);
      EXPECT_EQ(order < 19 ? 1 << (order - 2) : (1 << (order - 12)) + 1024, l.recombPairs);
    }
}

TEST(FftPlan, ReversesBits) {
  for (const int L : {6, 7, 10, 16, 19, 20, 23}) {
    SCOPED_TRACE("L " + std::to_string(L));
    const FftLayout layout = LayoutOf(limitsOf[Sse3], L + 1, true);
    std::vector<std::int32_t> table(static_cast<std::size_t>(layout.bitRevCount), -1);
    FillBitRev(L, table.data());
    const auto reversed = [](std::int64_t value, int bits) {
      std::int64_t r = 0;
      for (int b = 0; b < bits; ++b)
        r |= (value >> b & 1) << (bits - 1 - b);
      return r;
    };
    const std::int64_t M = std::int64_t{1} << L;
    if (L < 20) {
      for (std::int64_t i = 0; i < M / 4; ++i)
        ASSERT_EQ(2 * reversed(i, L - 2), table[static_cast<std::size_t>(i)]) << i;
      EXPECT_EQ(0, table.back());
      continue;
    }
    const std::size_t blocks = static_cast<std::size_t>(M) / 4096;
    for (std::size_t i = 0; i < blocks; ++i)
      ASSERT_EQ(64 * reversed(static_cast<std::int64_t>(i), L - 12), table[i]) << i;
    std::vector<int> seen(1024);
    for (std::size_t e = 0; e < 1024; ++e) {
      const int value = table[blocks + e] / 4;
      ++seen.at(static_cast<std::size_t>(value));
      const bool fixed = e >= 992;
      const int partner = fixed ? value : table[blocks + (e ^ 1)] / 4;
      ASSERT_EQ(reversed(value, 10), partner) << e;
      ASSERT_TRUE(fixed || e % 2 == 1 || value < partner) << e;
    }
    EXPECT_EQ(std::vector<int>(1024, 1), seen);
  }
}

/// Real and imaginary parts of exp(-2 pi i t / n) where a table has them.
void ExpectFactor(double t, double n, float cosine, float minusSine, const std::string& where) {
  const double angle = 2 * std::numbers::pi * t / n;
  ASSERT_NEAR(std::cos(angle), cosine, 6.1e-8) << where;
  ASSERT_NEAR(-std::sin(angle), minusSine, 6.1e-8) << where;
}

TEST(FftPlan, FillsStageTablesInReadingOrder) {
  for (const int lanes : {4, 8})
    for (const int L : {7, 8, 11, 13}) {
      std::vector<float> memory((std::size_t{2} << L) / 4 + 1), table(std::size_t{2} << L);
      const SineTable sines = L < 10 ? SineTable() : SineTable(memory.data(), 2 << L);
      FillTwiddles(L, lanes, sines, table.data());
      const PassList plan = PassesOf(L);
      for (int s = 1; s < plan.count; ++s) {
        const auto& [radix, span, offset] = plan.pass[s];
        const int group = std::min(lanes, span);
        for (int j = 0; j < span; j += span < 64 ? 1 : 7)
          for (int p = 1; p < radix; ++p) {
            const int at = offset + 2 * group * (j / group * (radix - 1) + p - 1) + j % group;
            ExpectFactor(j * p, span * radix, table.at(at), table.at(at + group),
                         "L " + std::to_string(L) + ", pass " + std::to_string(s) + ", j " +
                             std::to_string(j) + ", p " + std::to_string(p));
          }
      }
    }
}

TEST(FftPlan, FillsRecombinationTables) {
  for (const int lanes : {4, 8})
    for (const int L : {5, 9, 12, 18}) {
      const std::size_t N = std::size_t{2} << L;
      std::vector<float> memory(N / 4 + 1), forward(2 * N), inverse(2 * N);
      FillRecombination(L, lanes, SineTable(memory.data(), static_cast<int>(N)), forward.data(),
                        inverse.data());
      for (std::size_t k = 1; k <= (L < 18 ? N / 4 : 1024); k += L < 9 ? 1 : 5) {
        const std::string where = "L " + std::to_string(L) + ", k " + std::to_string(k);
        const std::size_t width = static_cast<std::size_t>(lanes),
                          group = (k - 1) / width * 2 * width;
        const std::size_t place = width - 1 - (k - 1) % width;
        std::size_t column = 0;
        while (static_cast<std::size_t>(ColumnOf(static_cast<int>(column), lanes)) != place)
          ++column;
        ExpectFactor(static_cast<double>(k), static_cast<double>(N), inverse[group + column],
                     inverse[group + column + width], where);
        const float A = forward[group + place], B = forward[group + place + width];
        if (L < 18)
          ExpectFactor(static_cast<double>(k), static_cast<double>(N), 2 * A, 2 * B - 1, where);
        else
          ExpectFactor(static_cast<double>(k), static_cast<double>(N), A, B, where);
      }
      if (L == 18)
        for (std::size_t run = 0; run < N / 4096; ++run)
          ExpectFactor(1024.0 * static_cast<double>(run), static_cast<double>(N),
                       inverse[2 * (1024 + run)], inverse[2 * (1024 + run) + 1],
                       "run " + std::to_string(run));
    }
}

TEST(FftPlan, FillsLevelTablesRunAfterRun) {
  constexpr int L = 17;  // 16 pieces of 2^13, 32 columns a run, levels 4 and 4
  const LargeRow row = LargeRowOf(limitsOf[Sse3], L);
  std::vector<float> memory((std::size_t{2} << L) / 4 + 1), table(std::size_t{2} << L);
  FillLevelTwiddles(L, row, 4, SineTable(memory.data(), 2 << L), table.data());
  constexpr int piece = 1 << 13, columns = 32, runFloats = 2 * (3 * columns + 4 * columns);
  for (const int run : {0, 1, 77, piece / columns - 1})
    for (int j = 0; j < columns; ++j) {
      const float* level = table.data() + run * runFloats;
      for (int p = 1; p <= 3; ++p) {
        const int at = 8 * (j / 4 * 3 + p - 1) + j % 4;
        ExpectFactor((run * columns + j) * p, 4 * piece, level[at], level[at + 4], "first level");
      }
      level += 2 * 3 * columns;
      for (int block = 0; block < 4; ++block) {
        const int at = 8 * ((block * columns + j) / 4) + j % 4;
        ExpectFactor(block * piece + run * columns + j, 16 * piece, level[at], level[at + 4],
                     "last level");
      }
    }
}

TEST(FftPlan, ScalesAsTheFlagSays) {
  std::vector<Ipp8u> memory(4096 + 32);
  auto* spec = reinterpret_cast<FftSpec*>(memory.data() +
                                          (-reinterpret_cast<std::uintptr_t>(memory.data()) & 31));
  const struct {
    int flag;
    bool forward, inverse;
    double scale;
  } rows[] = {{1, true, false, 1.0 / 64},
              {2, false, true, 1.0 / 64},
              {4, true, true, 1.0 / 8},
              {8, false, false, 1}};
  for (const auto& row : rows) {
    const FftLayout layout = LayoutOf(limitsOf[Sse3], 6, true);
    ASSERT_TRUE(BuildSpec(layout, limitsOf[Sse3], true, row.flag, 7, spec, nullptr)) << row.flag;
    EXPECT_EQ(row.forward, spec->fwdScaled != 0) << row.flag;
    EXPECT_EQ(row.inverse, spec->invScaled != 0) << row.flag;
    EXPECT_NEAR(row.scale, spec->scale, row.scale * 3e-7) << row.flag;
    EXPECT_EQ(6, spec->id);
    EXPECT_EQ(7, spec->hint);
  }
  EXPECT_FALSE(
      BuildSpec(LayoutOf(limitsOf[Sse3], 6, true), limitsOf[Sse3], true, 5, 0, spec, nullptr));
  EXPECT_EQ(0, spec->id);
}

}  // namespace
