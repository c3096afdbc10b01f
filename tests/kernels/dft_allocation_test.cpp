// Planning and running when memory runs out at any one allocation. The linker sends the library's
// malloc and free through here.

#include "kernels/members.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <string>
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
};
const Row rows[] = {
    {"direct kernel", 15},
    {"direct half length", 30},
    {"FFT", 4096},
    {"direct sum", 17},
    {"direct sum, half length", 34},
    {"mixed radix", 480},
    {"mixed radix, shared direct tables", 47 * 47 * 3},
    {"real plan", 441},
    {"convolution", 106},
    {"convolution of an odd length, mixed radix inside", 71},
};

template <class Body>
void ForEachPlan(Body&& body) {
  for (const KernelTest::Members& m : KernelTest::AllMembers())
    for (const Row& row : rows) {
      SCOPED_TRACE(std::string(row.name) + ", " + m.name);
      blocksHeld = 0;
      body(m, row.length);
      allocationsLeft = -1;
    }
}

TEST(DftAllocation, AFailedPlanHoldsNothing) {
  ForEachPlan([](const KernelTest::Members& m, int length) {
    IppStatus status = ippStsMemAllocErr;
    int allowed = 0;
    for (; status != ippStsNoErr && allowed < 100; ++allowed) {
      IppsDFTSpec_R_32f* spec = nullptr;
      allocationsLeft = allowed;
      status = m.ippsDFTInitAlloc_R_32f(&spec, length, 2, 2);
      allocationsLeft = -1;
      if (status == ippStsNoErr) {
        ASSERT_EQ(m.ippsDFTFree_R_32f(spec), ippStsNoErr);
      } else {
        ASSERT_EQ(status, ippStsMemAllocErr);
        ASSERT_EQ(spec, nullptr);
      }
      ASSERT_EQ(blocksHeld, 0) << "after " << allowed << " allocations";
    }
    EXPECT_EQ(status, ippStsNoErr);
    EXPECT_GT(allowed, length == 15 ? 1 : 3) << "or these allocations are not the plan's";
  });
}

TEST(DftAllocation, ATransformThatFindsNoMemoryWritesNothing) {
  ForEachPlan([](const KernelTest::Members& m, int length) {
    IppsDFTSpec_R_32f* spec = nullptr;
    ASSERT_EQ(m.ippsDFTInitAlloc_R_32f(&spec, length, 2, 2), ippStsNoErr);
    int workSize = 0;
    m.ippsDFTGetBufSize_R_32f(spec, &workSize);
    const std::vector<float> x(static_cast<std::size_t>(length) + 2, 1.0f);
    std::vector<float> y(x.size(), 7.0f);
    const std::vector<float> untouched = y;
    std::vector<Ipp8u> work(static_cast<std::size_t>(workSize) + 1);
    const int before = blocksHeld;
    for (auto transform : {m.ippsDFTFwd_RToCCS_32f, m.ippsDFTInv_CCSToR_32f}) {
      allocationsLeft = 0;
      if (workSize > 0) {
        EXPECT_EQ(transform(x.data(), y.data(), spec, nullptr), ippStsMemAllocErr);
        EXPECT_EQ(y, untouched);
      }
      // with a work buffer nothing is asked for
      EXPECT_EQ(transform(x.data(), y.data(), spec, work.data()), ippStsNoErr);
      allocationsLeft = -1;
      EXPECT_EQ(transform(x.data(), y.data(), spec, nullptr), ippStsNoErr);
      EXPECT_EQ(blocksHeld, before);
      y = untouched;
    }
    EXPECT_EQ(m.ippsDFTFree_R_32f(spec), ippStsNoErr);
  });
}

}  // namespace
