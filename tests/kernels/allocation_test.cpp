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

using KernelTest::AllMembers;
using KernelTest::Members;

template <class Value, class Spec>
struct Entries {
  IppStatus (*make)(Spec**, int size, int flag, int hint);
  IppStatus (*free)(Spec*);
  IppStatus (*forward)(const Value*, Value*, const Spec*, Ipp8u*);
  IppStatus (*inverse)(const Value*, Value*, const Spec*, Ipp8u*);
};

/// A plan takes `least` blocks at least. Refused any one of them it reports that and keeps none.
template <class Value, class Spec>
void CheckPlan(const Entries<Value, Spec>& entries, int size, int least) {
  IppStatus status = ippStsMemAllocErr;
  int allowed = 0;
  for (; status != ippStsNoErr && allowed < 100; ++allowed) {
    Spec* spec = nullptr;
    blocksHeld = 0;
    allocationsLeft = allowed;
    status = entries.make(&spec, size, IPP_FFT_DIV_INV_BY_N, ippAlgHintAccurate);
    allocationsLeft = -1;
    EXPECT_EQ(spec == nullptr, status == ippStsMemAllocErr);
    if (spec) {
      EXPECT_EQ(entries.free(spec), ippStsNoErr);
    }
    EXPECT_EQ(blocksHeld, 0) << "after " << allowed << " allocations";
  }
  EXPECT_EQ(status, ippStsNoErr);
  EXPECT_GT(allowed, least) << "or these allocations are not the plan's";
}

/// A transform asks for memory only where it gets no work buffer; without it, it writes nothing.
template <class Value, class Spec>
void CheckTransforms(const Entries<Value, Spec>& entries, int size, std::size_t values,
                     int workSize) {
  Spec* spec = nullptr;
  ASSERT_EQ(entries.make(&spec, size, IPP_FFT_DIV_INV_BY_N, ippAlgHintAccurate), ippStsNoErr);
  std::vector<Ipp8u> work(static_cast<std::size_t>(workSize) + 1);
  const std::vector<Value> x(values);
  const int before = blocksHeld;
  for (const auto transform : {entries.forward, entries.inverse}) {
    std::vector<float> y(values * sizeof(Value) / sizeof(float), 7.0F);
    const std::vector<float> untouched = y;
    auto* const dst = reinterpret_cast<Value*>(y.data());
    allocationsLeft = 0;
    if (workSize > 0) {
      EXPECT_EQ(transform(x.data(), dst, spec, nullptr), ippStsMemAllocErr);
      EXPECT_EQ(y, untouched);
    }
    EXPECT_EQ(transform(x.data(), dst, spec, work.data()), ippStsNoErr);
    allocationsLeft = -1;
    EXPECT_EQ(transform(x.data(), dst, spec, nullptr), ippStsNoErr);
    EXPECT_EQ(blocksHeld, before);
  }
  EXPECT_EQ(entries.free(spec), ippStsNoErr);
}

TEST(Allocation, DftsReportMissingMemoryAndKeepNone) {
  const struct {
    const char* name;
    int length, least;
  } rows[] = {
      {"direct kernel", 15, 1},
      {"direct half length", 30, 3},
      {"FFT", 4096, 3},
      {"direct sum", 17, 3},
      {"direct sum, half length", 34, 3},
      {"mixed radix", 480, 3},
      {"mixed radix, shared direct tables", 47 * 47 * 3, 3},
      {"real plan", 441, 3},
      {"convolution", 106, 3},
      {"convolution of an odd length, mixed radix inside", 71, 3},
  };
  for (const Members& m : AllMembers())
    for (const auto& row : rows) {
      SCOPED_TRACE(std::string(row.name) + ", " + m.name);
      const Entries<Ipp32f, IppsDFTSpec_R_32f> entries = {
          m.ippsDFTInitAlloc_R_32f, m.ippsDFTFree_R_32f, m.ippsDFTFwd_RToCCS_32f,
          m.ippsDFTInv_CCSToR_32f};
      CheckPlan(entries, row.length, row.least);
      IppsDFTSpec_R_32f* spec = nullptr;
      int workSize = 0;
      ASSERT_EQ(m.ippsDFTInitAlloc_R_32f(&spec, row.length, 2, 2), ippStsNoErr);
      m.ippsDFTGetBufSize_R_32f(spec, &workSize);
      m.ippsDFTFree_R_32f(spec);
      CheckTransforms(entries, row.length, static_cast<std::size_t>(row.length) + 2, workSize);
    }
}

TEST(Allocation, FftsReportMissingMemoryAndKeepNone) {
  for (const Members& m : AllMembers())
    for (const int order : {3, 9, 12}) {
      SCOPED_TRACE(std::string(m.name) + ", order " + std::to_string(order));
      const std::size_t N = std::size_t{1} << order;
      const int least = order > 10 ? 2 : 1;  // from 11 on a table of sines is made first
      const Entries<Ipp32f, IppsFFTSpec_R_32f> real = {m.ippsFFTInitAlloc_R_32f,
                                                       m.ippsFFTFree_R_32f, m.ippsFFTFwd_RToCCS_32f,
                                                       m.ippsFFTInv_CCSToR_32f};
      int specSize = 0, initSize = 0, workSize = 0;
      m.ippsFFTGetSize_R_32f(order, 2, 0, &specSize, &initSize, &workSize);
      CheckPlan(real, order, least);
      CheckTransforms(real, order, N + 2, workSize);
      m.ippsFFTGetSize_R_32f(order + 1, 2, 0, &specSize, &initSize, &workSize);
      const Entries<Ipp32fc, IppsFFTSpec_C_32fc> complex = {
          m.ippsFFTInitAlloc_C_32fc, m.ippsFFTFree_C_32fc, m.ippsFFTFwd_CToC_32fc,
          m.ippsFFTInv_CToC_32fc};
      CheckPlan(complex, order, least);
      CheckTransforms(complex, order, N, workSize);
    }
}

}  // namespace
