#include "kernels/dft/describe.h"

#include "kernels/ipps.h"

#include <gtest/gtest.h>

using namespace Orvik::Tesmo::Kernels;

namespace {

using Runs = std::vector<std::vector<int>>;

TEST(DescribeTransform, ShowsMethodRunsAndSizes) {
  struct Row {
    int length;
    const char* method;
    int points;
    Runs runs;
    int convLength, workSize;
  };
  const Row rows[] = {
      {1, "direct kernel", 1, {}, 0, 0},
      {15, "direct kernel", 15, {}, 0, 0},
      {30, "direct kernel of half the length", 15, {}, 0, 0},
      {512, "FFT, one buffer", 256, {{4, 4, 4, 4}}, 0, 2080},
      {1 << 18, "FFT in pieces", 1 << 17, {{4, 8, 8, 8, 4}, {4, 4}}, 0, 65568},
      {17, "direct sum", 17, {}, 0, 100},
      {480, "mixed radix", 240, {{16, 3, 5}}, 0, 1984},
      {441, "mixed radix, real", 441, {{7, 7, 3, 3}}, 0, 3592},
      {6000, "mixed radix", 3000, {{8, 5, 5, 3}, {5}}, 0, 24064},
      {997, "chirp convolution", 997, {{4, 8, 8, 8}}, 2048, 32832},
      {142, "chirp convolution", 71, {{16, 3, 3}}, 144, 2400},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.length);
    const auto description = DescribeTransform(row.length);
    ASSERT_TRUE(description.has_value());
    EXPECT_EQ(description->method, row.method);
    EXPECT_EQ(description->points, row.points);
    EXPECT_EQ(description->runs, row.runs);
    EXPECT_EQ(description->convLength, row.convLength);
    EXPECT_EQ(description->workSize, row.workSize);
  }
}

TEST(DescribeTransform, WorkSizesAreThoseOfTheSpecs) {
  for (int length = 1; length < 3000; length += 7) {
    IppsDFTSpec_R_32f* spec = nullptr;
    ASSERT_EQ(ippsDFTInitAlloc_R_32f(&spec, length, 2, 2), ippStsNoErr);
    int workSize = 0;
    ippsDFTGetBufSize_R_32f(spec, &workSize);
    ippsDFTFree_R_32f(spec);
    const bool fft = (length & (length - 1)) == 0 && workSize > 0;
    EXPECT_EQ(DescribeTransform(length)->workSize + (fft ? 32 : 0), workSize) << length;
  }
}

TEST(DescribeTransform, SaysNothingOfLengthsWithoutAPlan) {
  for (int length : {-1, 0, 134217729, 2147483647, 1 << 30, 67108879})
    EXPECT_FALSE(DescribeTransform(length).has_value()) << length;
}

}  // namespace
