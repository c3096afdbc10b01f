// Transforms of 2^order values of every build that this processor runs.

#include "kernels/fft/plan.h"
#include "kernels/planned_transforms.h"
#include "kernels/random.h"

#include <gtest/gtest.h>

#include <climits>
#include <limits>

using namespace KernelTest;
using Orvik::Tesmo::Kernels::FftSpec;

namespace {

TEST(Fft, IsTheDefinitionAndItsInverse) {
  RandomInput random;
  for (const Members& m : AllMembers())
    for (int order = 0; 1 << order <= AtMost(1 << 22); ++order)
      for (int round = 0; round < (order <= 12 ? 8 : 1); ++round) {
        const int flag = flags[(order + round) % 4];
        Input input = random.Next();
        EXPECT_NO_THROW({
          TransformCheck real(RealFft(m, input, order, flag), input);
          real.Run(Signal::Noise);
          real.Run(Signal::Impulses);
        });
        if (order > 20) continue;
        EXPECT_NO_THROW({
          TransformCheck complex(ComplexFft(m, order, flag), input);
          complex.Run(order % 2 ? Signal::Noise : Signal::Impulses);
        });
      }
}

TEST(Fft, NonFiniteAndDenormalSamplesReachTheSpectrum) {
  constexpr float inf = std::numeric_limits<float>::infinity(),
                  nan = std::numeric_limits<float>::quiet_NaN();
  for (const int order : {4, 6, 9, 12})
    for (const float value : {std::numeric_limits<float>::denorm_min(), inf, nan})
      for (const Members& m : AllMembers()) {
        SCOPED_TRACE(std::to_string(value) + ", " + m.name + ", order " + std::to_string(order));
        const std::size_t N = std::size_t{1} << order;
        const auto spec = Plan(m.ippsFFTInitAlloc_R_32f, m.ippsFFTFree_R_32f, order, 2, 0);
        std::vector<float> X(N + 2, 5.0f);
        m.ippsFFTFwd_RToCCS_32f(std::vector<float>(N, value).data(), X.data(), spec.get(), nullptr);
        if (std::isfinite(value)) {
          EXPECT_EQ(value * static_cast<float>(N), X[0]);
        }
        EXPECT_EQ(std::isfinite(value), std::isfinite(X[0]));
        EXPECT_EQ(!std::isfinite(value), std::isnan(X[4]));
      }
}

TEST(Fft, EveryOrderAndFlagHasItsStatusAndRefusedOnesNoSizes) {
  for (const Members& m : AllMembers())
    for (const int order : {INT_MIN, -2, -1, 0, 1, 7, 12, 28, 29, 30, 31, 32, INT_MAX})
      for (const int flag : {INT_MIN, -1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 16, INT_MAX}) {
        int spec = -7, init = -7, work = -7;
        const IppStatus wanted = order < 0 || order > 30 ? ippStsFftOrderErr
                                 : !IsFlag(flag)         ? ippStsFftFlagErr
                                 : order > 29            ? ippStsFftOrderErr
                                                         : ippStsNoErr;
        SCOPED_TRACE(std::to_string(order) + ", flag " + std::to_string(flag) + ", " + m.name);
        EXPECT_EQ(wanted, m.ippsFFTGetSize_R_32f(order, flag, 0, &spec, &init, &work));
        EXPECT_TRUE(wanted == ippStsNoErr ? spec > 0 && init >= 0 && work >= 0
                                          : spec == -7 && init == -7 && work == -7);
        IppsFFTSpec_R_32f* made = nullptr;
        if (wanted == ippStsNoErr) continue;
        EXPECT_EQ(wanted, m.ippsFFTInitAlloc_R_32f(&made, order, flag, 0));
        EXPECT_EQ(nullptr, made);
      }
}

TEST(Fft, RefusesInTheOrderOfItsTests) {
  for (const Members& m : AllMembers()) {
    constexpr auto null = ippStsNullPtrErr, context = ippStsContextMatchErr,
                   badOrder = ippStsFftOrderErr, badFlag = ippStsFftFlagErr;
    IppsFFTSpec_R_32f *unset = nullptr, *own = nullptr;
    IppsFFTSpec_C_32fc* none = nullptr;
    int a = 0, b = 0, c = 0;
    const auto spec = Plan(m.ippsFFTInitAlloc_R_32f, m.ippsFFTFree_R_32f, 9, 2, 0);
    const auto complex = Plan(m.ippsFFTInitAlloc_C_32fc, m.ippsFFTFree_C_32fc, 3, 8, 0);
    IppsFFTSpec_R_32f stale = *spec;
    stale.id = 0;
    IppsFFTSpec_C_32fc foreign = *complex;
    foreign.id = FftSpec::liveReal;
    m.ippsFFTGetSize_R_32f(12, 2, 0, &a, &b, &c);
    std::vector<Ipp8u> memory(static_cast<std::size_t>(a)), init(static_cast<std::size_t>(b));
    Ipp32fc z[8] = {};
    std::vector<Ipp8u> flagged(memory.size(), FftSpec::liveReal);
    const struct {
      const char* name;
      IppStatus expected, got;
    } rows[] = {
        {"size: order before null", badOrder, m.ippsFFTGetSize_R_32f(31, 3, 0, nullptr, &b, &c)},
        {"size: null before flag", null, m.ippsFFTGetSize_R_32f(30, 3, 0, &a, nullptr, &c)},
        {"plan: null", null, m.ippsFFTInitAlloc_R_32f(nullptr, 31, 3, 0)},
        {"free: null", null, m.ippsFFTFree_R_32f(nullptr)},
        {"free: stale", context, m.ippsFFTFree_R_32f(&stale)},
        {"init: null", null, m.ippsFFTInit_R_32f(nullptr, 99, 2, 0, memory.data(), init.data())},
        {"init: order", badOrder, m.ippsFFTInit_R_32f(&unset, 30, 3, 0, nullptr, init.data())},
        {"init: null before flag", null,
         m.ippsFFTInit_R_32f(&unset, 12, 3, 0, nullptr, init.data())},
        {"init: flag", badFlag, m.ippsFFTInit_R_32f(&unset, 12, 3, 0, flagged.data(), init.data())},
        {"init: no tables", null, m.ippsFFTInit_R_32f(&unset, 12, 2, 0, memory.data(), nullptr)},
        {"init", ippStsNoErr, m.ippsFFTInit_R_32f(&own, 12, 2, 0, memory.data(), init.data())},
        {"free", ippStsNoErr, m.ippsFFTFree_R_32f(own)},
        {"free: twice", context, m.ippsFFTFree_R_32f(own)},
        {"complex: null", null, m.ippsFFTInitAlloc_C_32fc(nullptr, 3, 8, 0)},
        {"complex: order 29", badOrder, m.ippsFFTInitAlloc_C_32fc(&none, 29, 8, 0)},
        {"complex: order -1", badOrder, m.ippsFFTInitAlloc_C_32fc(&none, -1, 8, 0)},
        {"complex: flag", badFlag, m.ippsFFTInitAlloc_C_32fc(&none, 7, 9, 0)},
        {"complex: size of nothing", null, m.ippsFFTGetBufSize_C_32fc(nullptr, &c)},
        {"complex: size of a foreign spec", context, m.ippsFFTGetBufSize_C_32fc(&foreign, &c)},
        {"complex: forward, foreign", context, m.ippsFFTFwd_CToC_32fc(z, z, &foreign, nullptr)},
        {"complex: inverse, no source", null,
         m.ippsFFTInv_CToC_32fc(nullptr, z, complex.get(), nullptr)},
        {"complex: free, foreign", context, m.ippsFFTFree_C_32fc(&foreign)},
    };
    for (const auto& row : rows)
      EXPECT_EQ(row.expected, row.got) << row.name << ", " << m.name;
    EXPECT_EQ(nullptr, unset);
    const auto unaligned = -reinterpret_cast<std::uintptr_t>(flagged.data()) % 32;
    EXPECT_EQ(0, reinterpret_cast<const FftSpec*>(flagged.data() + unaligned)->id);
    EXPECT_EQ(nullptr, none);

    std::vector<float> x(514, 1.0f), y(514, 7.0f);
    const std::vector<float> untouched = y;
    struct Call {
      const char* name;
      IppStatus expected;
      const float* src;
      float* dst;
      const IppsFFTSpec_R_32f* spec;
    };
    for (const Call& call : {Call{"no spec", null, nullptr, y.data(), nullptr},
                             Call{"stale before null", context, nullptr, nullptr, &stale},
                             Call{"no source", null, nullptr, y.data(), spec.get()},
                             Call{"no destination", null, x.data(), nullptr, spec.get()}}) {
      SCOPED_TRACE(std::string(call.name) + ", " + m.name);
      EXPECT_EQ(call.expected, m.ippsFFTFwd_RToCCS_32f(call.src, call.dst, call.spec, nullptr));
      EXPECT_EQ(call.expected, m.ippsFFTInv_CCSToR_32f(call.src, call.dst, call.spec, nullptr));
      if (call.dst == nullptr || call.spec != spec.get()) {
        EXPECT_EQ(call.expected, m.ippsFFTFwd_RToCCS_32f_I(nullptr, call.spec, nullptr));
        EXPECT_EQ(call.expected, m.ippsFFTInv_CCSToR_32f_I(nullptr, call.spec, nullptr));
      }
      EXPECT_EQ(untouched, y);
    }
  }
}

}  // namespace
