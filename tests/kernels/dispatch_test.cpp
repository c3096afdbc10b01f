#include "kernels/cpu.h"
#include "kernels/members.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>

using namespace Orvik::Tesmo::Kernels;

namespace {

TEST(Dispatch, StartsAtTheFirstBuildAndCallsTheChosenOne) {
  EXPECT_EQ(0, ippVariantIndex);
  for (const KernelTest::Members& m : KernelTest::AllMembers()) {
    int got[3] = {}, expected[3] = {};  // builds with other limits have other sizes at this order
    ippVariantIndex = m.index;
    ippsFFTGetSize_R_32f(19, 2, 0, &got[0], &got[1], &got[2]);
    ippVariantIndex = 0;
    m.ippsFFTGetSize_R_32f(19, 2, 0, &expected[0], &expected[1], &expected[2]);
    EXPECT_TRUE(std::ranges::equal(expected, got)) << m.name;
  }
}

TEST(Memory, BlocksAreAligned) {
  for (const std::int32_t length : {1, 31, 32, 33, 1000}) {
    Ipp8u* block = ippsMalloc(length);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(block) % 32) << length;
    std::memset(block, 1, static_cast<std::size_t>(length));
    ippsFree(block);
  }
  for (const std::int32_t length : {0, -1, std::numeric_limits<std::int32_t>::min()})
    EXPECT_EQ(nullptr, ippsMalloc(length)) << length;
  ippsFree(nullptr);
}

TEST(Cpu, AnswersTheSameTwice) {
  EXPECT_EQ(ippStsNullPtrErr, ippGetMaxCacheSizeB(nullptr));
  std::int32_t first = -1, second = -1;
  const IppStatus status = ippGetMaxCacheSizeB(&first);
  EXPECT_EQ(status, ippGetMaxCacheSizeB(&second));
  EXPECT_EQ(first, second);
  EXPECT_EQ(status == ippStsNoErr, first > 0);
}

}  // namespace
