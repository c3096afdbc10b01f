// Planning and running when memory runs out at any one allocation. The linker sends the library's
// malloc and free through here.

#include "kernels/members.h"

#include <cstddef>
#include <functional>
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

using KernelTest::Members;

/// The entries of one kind of transform, of one size.
struct Kind {
  using Transform = std::function<IppStatus(const float*, float*, void* spec, Ipp8u* work)>;
  std::string name;
  std::size_t floats;    ///< of either side, at most
  int leastAllocations;  ///< of its plan
  std::function<IppStatus(void** spec)> make;
  std::function<IppStatus(void* spec)> free;
  std::function<int(void* spec)> workSize;
  Transform forward, inverse;
};

template <class Value, class Spec>
Kind MakeKind(const std::string& name, std::size_t floats, int leastAllocations, int size,
              IppStatus (*make)(Spec**, int, int, int), IppStatus (*free)(Spec*),
              std::function<int(Spec*)> workSize,
              IppStatus (*forward)(const Value*, Value*, const Spec*, Ipp8u*),
              IppStatus (*inverse)(const Value*, Value*, const Spec*, Ipp8u*)) {
  const auto bound = [](auto entry) -> Kind::Transform {
    return [entry](const float* src, float* dst, void* spec, Ipp8u* work) {
      return entry(reinterpret_cast<const Value*>(src), reinterpret_cast<Value*>(dst),
                   static_cast<const Spec*>(spec), work);
    };
  };
  return {name,
          floats,
          leastAllocations,
          [=](void** spec) {
            Spec* made = nullptr;
            const IppStatus status = make(&made, size, IPP_FFT_DIV_INV_BY_N, ippAlgHintAccurate);
            *spec = made;
            return status;
          },
          [=](void* spec) { return free(static_cast<Spec*>(spec)); },
          [=](void* spec) { return workSize(static_cast<Spec*>(spec)); },
          bound(forward),
          bound(inverse)};
}

std::vector<Kind> KindsOf(const Members& m) {
  const struct {
    const char* name;
    int length, leastAllocations;
  } lengths[] = {
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
  std::vector<Kind> kinds;
  for (const auto& row : lengths)
    kinds.push_back(MakeKind<Ipp32f, IppsDFTSpec_R_32f>(
        std::string(row.name) + ", " + m.name, static_cast<std::size_t>(row.length) + 2,
        row.leastAllocations, row.length, m.ippsDFTInitAlloc_R_32f, m.ippsDFTFree_R_32f,
        [&m](IppsDFTSpec_R_32f* spec) {
          int size = 0;
          m.ippsDFTGetBufSize_R_32f(spec, &size);
          return size;
        },
        m.ippsDFTFwd_RToCCS_32f, m.ippsDFTInv_CCSToR_32f));
  for (const int order : {3, 9, 12}) {
    const std::string name = "order " + std::to_string(order) + ", " + m.name;
    kinds.push_back(MakeKind<Ipp32f, IppsFFTSpec_R_32f>(
        "real FFT of " + name, (std::size_t{1} << order) + 2, order > 10 ? 2 : 1, order,
        m.ippsFFTInitAlloc_R_32f, m.ippsFFTFree_R_32f,
        [&m, order](IppsFFTSpec_R_32f*) {
          int specSize = 0, initSize = 0, workSize = 0;
          m.ippsFFTGetSize_R_32f(order, IPP_FFT_DIV_INV_BY_N, 0, &specSize, &initSize, &workSize);
          return workSize;
        },
        m.ippsFFTFwd_RToCCS_32f, m.ippsFFTInv_CCSToR_32f));
    kinds.push_back(MakeKind<Ipp32fc, IppsFFTSpec_C_32fc>(
        "complex FFT of " + name, std::size_t{2} << order, order > 10 ? 2 : 1, order,
        m.ippsFFTInitAlloc_C_32fc, m.ippsFFTFree_C_32fc,
        [&m](IppsFFTSpec_C_32fc* spec) {
          int size = 0;
          m.ippsFFTGetBufSize_C_32fc(spec, &size);
          return size;
        },
        m.ippsFFTFwd_CToC_32fc, m.ippsFFTInv_CToC_32fc));
  }
  return kinds;
}

template <class Body>
void ForEachKind(Body&& body) {
  for (const Members& m : KernelTest::AllMembers())
    for (const Kind& kind : KindsOf(m)) {
      SCOPED_TRACE(kind.name);
      blocksHeld = 0;
      body(kind);
      allocationsLeft = -1;
    }
}

TEST(Allocation, AFailedPlanHoldsNothing) {
  ForEachKind([](const Kind& kind) {
    IppStatus status = ippStsMemAllocErr;
    int allowed = 0;
    for (; status != ippStsNoErr && allowed < 100; ++allowed) {
      void* spec = nullptr;
      allocationsLeft = allowed;
      status = kind.make(&spec);
      allocationsLeft = -1;
      if (status == ippStsNoErr) {
        ASSERT_EQ(kind.free(spec), ippStsNoErr);
      } else {
        ASSERT_EQ(status, ippStsMemAllocErr);
        ASSERT_EQ(spec, nullptr);
      }
      ASSERT_EQ(blocksHeld, 0) << "after " << allowed << " allocations";
    }
    EXPECT_EQ(status, ippStsNoErr);
    EXPECT_GT(allowed, kind.leastAllocations) << "or these allocations are not the plan's";
  });
}

TEST(Allocation, ATransformThatFindsNoMemoryWritesNothing) {
  ForEachKind([](const Kind& kind) {
    void* spec = nullptr;
    ASSERT_EQ(kind.make(&spec), ippStsNoErr);
    const int workSize = kind.workSize(spec);
    const std::vector<float> x(kind.floats, 1.0f);
    std::vector<float> y(x.size(), 7.0f);
    const std::vector<float> untouched = y;
    std::vector<Ipp8u> work(static_cast<std::size_t>(workSize) + 1);
    const int before = blocksHeld;
    for (const Kind::Transform& transform : {kind.forward, kind.inverse}) {
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
    EXPECT_EQ(kind.free(spec), ippStsNoErr);
  });
}

}  // namespace
