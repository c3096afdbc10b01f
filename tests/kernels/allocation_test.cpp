// Planning and running when memory runs out at any one allocation. The linker sends the library's
// malloc and free through here.

#include "kernels/planned_transforms.h"

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

using namespace KernelTest;

/// A plan takes more than `least` blocks. Without any one of them planning reports that and keeps
/// none.
template <class Spec>
void CheckPlan(IppStatus (*make)(Spec**, int, int, int), IppStatus (*free)(Spec*), int size,
               int least) {
  IppStatus status = ippStsMemAllocErr;
  int allowed = 0;
  for (; status != ippStsNoErr && allowed < 100; ++allowed) {
    Spec* spec = nullptr;
    blocksHeld = 0;
    allocationsLeft = allowed;
    status = make(&spec, size, IPP_FFT_DIV_INV_BY_N, ippAlgHintAccurate);
    allocationsLeft = -1;
    EXPECT_EQ(spec == nullptr, status == ippStsMemAllocErr);
    if (spec) {
      EXPECT_EQ(free(spec), ippStsNoErr);
    }
    EXPECT_EQ(blocksHeld, 0) << "after " << allowed << " allocations";
  }
  EXPECT_EQ(status, ippStsNoErr);
  EXPECT_GT(allowed, least) << "or these allocations are not the plan's";
}

/// A transform allocates only where it gets no work buffer; without memory it writes nothing.
void CheckTransforms(const Transform& t) {
  std::vector<Ipp8u> work(*t.workSize + 1);
  const std::vector<float> x(2 * t.length + 2);
  const int before = blocksHeld;
  for (const auto& transform : {t.forward, t.inverse}) {
    std::vector<float> y(x.size(), 7.0F);
    const std::vector<float> untouched = y;
    allocationsLeft = 0;
    if (*t.workSize > 0) {
      EXPECT_EQ(transform(x.data(), y.data(), nullptr), ippStsMemAllocErr);
      EXPECT_EQ(y, untouched);
    }
    EXPECT_EQ(transform(x.data(), y.data(), work.data()), ippStsNoErr);
    allocationsLeft = -1;
    EXPECT_EQ(transform(x.data(), y.data(), nullptr), ippStsNoErr);
  }
  EXPECT_EQ(blocksHeld, before);
}

TEST(Allocation, DftsReportMissingMemoryAndKeepNone) {
  constexpr int lengths[] = {
      15,           // direct kernel
      30,           // direct half length
      4096,         // FFT
      17,           // direct sum
      34,           // direct sum, half length
      480,          // mixed radix
      47 * 47 * 3,  // mixed radix, shared direct tables
      441,          // real plan
      106,          // convolution
      71,           // convolution of an odd length, mixed radix inside
  };
  for (const Members& m : AllMembers())
    for (const int length : lengths) {
      SCOPED_TRACE(m.name + (", length " + std::to_string(length)));
      CheckPlan(m.ippsDFTInitAlloc_R_32f, m.ippsDFTFree_R_32f, length, length == 15 ? 1 : 3);
      CheckTransforms(RealDft(m, length, IPP_FFT_DIV_INV_BY_N));
    }
}

TEST(Allocation, FftsReportMissingMemoryAndKeepNone) {
  for (const Members& m : AllMembers())
    for (const int order : {3, 9, 12}) {
      SCOPED_TRACE(m.name + (", order " + std::to_string(order)));
      const int least = order > 10 ? 2 : 1;  // from 11 on a table of sines is made first
      CheckPlan(m.ippsFFTInitAlloc_R_32f, m.ippsFFTFree_R_32f, order, least);
      CheckPlan(m.ippsFFTInitAlloc_C_32fc, m.ippsFFTFree_C_32fc, order, least);
      Input first(nullptr, 0);  // its choices are the first ones: a plan on the heap, two arrays
      CheckTransforms(RealFft(m, first, order, IPP_FFT_DIV_INV_BY_N));
      CheckTransforms(ComplexFft(m, order, IPP_FFT_DIV_INV_BY_N));
    }
}

}  // namespace
