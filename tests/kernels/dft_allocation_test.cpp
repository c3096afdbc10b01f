// Planning and running when memory runs out at any one allocation. The linker sends the library's
// malloc and free through here.

#include "kernels/ipps.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <vector>

extern "C" {
void* __real_malloc(std::size_t size);
void __real_free(void* block);
}

namespace {
int allocationsLeft = -1;  // below 0: no end
int blocksHeld = 0;
}  // namespace

extern "C" {
void* __wrap_malloc(std::size_t size) {
  if (allocationsLeft == 0) return nullptr;
  if (allocationsLeft > 0) --allocationsLeft;
  ++blocksHeld;
  return __real_malloc(size);
}
void __wrap_free(void* block) {
  if (block) --blocksHeld;
  __real_free(block);
}
}

namespace {

struct Row {
  const char* name;
  int length;
  int minBlocks;  ///< allocations that a plan takes at least
};
const Row rows[] = {
    {"direct kernel", 15, 1},
    {"direct half length", 30, 4},
    {"FFT", 4096, 3},
    {"direct sum", 17, 3},
    {"direct sum, half length", 34, 5},
    {"mixed radix", 480, 8},
    {"mixed radix, shared direct tables", 47 * 47 * 3, 7},
    {"real plan", 441, 7},
    {"convolution", 106, 9},
    {"convolution of an odd length, mixed radix inside", 71, 10},
};

class DftAllocation : public testing::TestWithParam<int> {
protected:
  void SetUp() override {
    if (GetParam() > ippBestVariantIndex())
      GTEST_SKIP() << "this processor does not run build " << GetParam();
    ippVariantIndex = GetParam();
    blocksHeld = 0;
  }
  void TearDown() override {
    ippVariantIndex = 0;
    allocationsLeft = -1;
  }
};

TEST_P(DftAllocation, AFailedPlanHoldsNothing) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    IppStatus status = ippStsMemAllocErr;
    int allowed = 0;
    for (; status != ippStsNoErr && allowed < 100; ++allowed) {
      IppsDFTSpec_R_32f* spec = nullptr;
      allocationsLeft = allowed;
      status = ippsDFTInitAlloc_R_32f(&spec, row.length, 2, 2);
      allocationsLeft = -1;
      if (status == ippStsNoErr) {
        ASSERT_EQ(ippsDFTFree_R_32f(spec), ippStsNoErr);
      } else {
        ASSERT_EQ(status, ippStsMemAllocErr);
        ASSERT_EQ(spec, nullptr);
      }
      ASSERT_EQ(blocksHeld, 0) << "after " << allowed << " allocations";
    }
    EXPECT_EQ(status, ippStsNoErr);
    EXPECT_GT(allowed, row.minBlocks);
  }
}

TEST_P(DftAllocation, ATransformThatFindsNoMemoryWritesNothing) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    IppsDFTSpec_R_32f* spec = nullptr;
    ASSERT_EQ(ippsDFTInitAlloc_R_32f(&spec, row.length, 2, 2), ippStsNoErr);
    int workSize = 0;
    ippsDFTGetBufSize_R_32f(spec, &workSize);
    const std::vector<float> x(static_cast<std::size_t>(row.length) + 2, 1.0f);
    std::vector<float> y(x.size(), 7.0f);
    const std::vector<float> untouched = y;
    std::vector<Ipp8u> work(static_cast<std::size_t>(workSize) + 1);
    const int before = blocksHeld;
    for (auto transform : {ippsDFTFwd_RToCCS_32f, ippsDFTInv_CCSToR_32f}) {
      allocationsLeft = 0;
      if (workSize > 0) {
        EXPECT_EQ(transform(x.data(), y.data(), spec, nullptr), ippStsMemAllocErr);
        EXPECT_EQ(y, untouched);
      }
      // with a work buffer nothing is asked for
      EXPECT_EQ(transform(x.data(), y.data(), spec, work.data()), ippStsNoErr);
      y = untouched;
      allocationsLeft = -1;
      EXPECT_EQ(transform(x.data(), y.data(), spec, nullptr), ippStsNoErr);
      EXPECT_EQ(blocksHeld, before);
      y = untouched;
    }
    EXPECT_EQ(ippsDFTFree_R_32f(spec), ippStsNoErr);
  }
}

INSTANTIATE_TEST_SUITE_P(Builds, DftAllocation, testing::Values(0, 2, 3, 4, 5));

}  // namespace
