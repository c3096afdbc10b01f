// What other kernels of a build call without passing through the table.
#include "kernels/fft_support.h"

#include "kernels/fft/planned_fft.h"

#define KERNELS_BUILD sse3
#include "kernels/builds/members.h"
#undef KERNELS_BUILD
#define KERNELS_BUILD avx
#include "kernels/builds/members.h"
#undef KERNELS_BUILD

using namespace KernelTest;

namespace {

#define MEMBERS(X)                                                                                 \
  X(ippsFFTInitAlloc_C_32fc)                                                                       \
  X(ippsFFTFree_C_32fc)                                                                            \
  X(ippsFFTGetBufSize_C_32fc)                                                                      \
  X(ippsFFTFwd_CToC_32fc)                                                                          \
  X(ippsFFTInv_CToC_32fc)                                                                          \
  X(ippsFFTFwd_RToPack_32f)                                                                        \
  X(ippsFFTInit_R_32f)                                                                             \
  X(ippsMulC_32f_I)                                                                                \
  X(ippsConj_32fc)                                                                                 \
  X(ippsMul_32fc)                                                                                  \
  X(ippsMul_32fc_I)                                                                                \
  X(ippsZero_32f)                                                                                  \
  X(ippsZero_32fc)
#define POINTER(f) decltype(&sse3::f) f;  // NOLINT(bugprone-macro-parentheses): a declaration
#define OF_SSE3(f) sse3::f,
#define OF_AVX(f) avx::f,

struct Members {
  BuildUnderTest build;
  MEMBERS(POINTER)
};
std::vector<Members> Runnable() {
  std::vector<Members> all = {{{0, limitsOf[Sse3]}, MEMBERS(OF_SSE3)}};
  if (ippBestVariantIndex() == 5) all.push_back({{5, limitsOf[Avx]}, MEMBERS(OF_AVX)});
  return all;
}

std::vector<Ipp32fc> ComplexNoise(std::size_t count, std::uint64_t salt) {
  const auto noise = Noise(2 * count, salt);
  std::vector<Ipp32fc> z(count);
  std::memcpy(static_cast<void*>(z.data()), noise.data(), 2 * count * sizeof(float));
  return z;
}

TEST(ComplexFft, IsTheDefinitionAndItsInverse) {
  for (const Members& m : Runnable())
    for (const int order : {0, 1, 2, 3, 4, 5, 6, 7, 9, 10, 16, 17, 19, 20}) {
      SCOPED_TRACE(std::string(m.build.limits.name) + ", order " + std::to_string(order));
      const std::size_t M = std::size_t{1} << order;
      IppsFFTSpec_C_32fc* spec = nullptr;
      ASSERT_EQ(ippStsNoErr,
                m.ippsFFTInitAlloc_C_32fc(
                    &spec, order, order % 2 ? IPP_FFT_DIV_FWD_BY_N : IPP_FFT_DIV_INV_BY_N, 0));
      int size = -1;
      ASSERT_EQ(ippStsNoErr, m.ippsFFTGetBufSize_C_32fc(spec, &size));
      std::vector<Ipp8u> work(static_cast<std::size_t>(size) + 1);
      const auto z = ComplexNoise(M, M);
      std::vector<Ipp32fc> Z(M), same = z, back(M);
      ASSERT_EQ(ippStsNoErr, m.ippsFFTFwd_CToC_32fc(z.data(), Z.data(), spec, work.data()));
      for (int probe = 0; probe < 8; ++probe) {
        const std::size_t k = static_cast<std::size_t>(probe) * 2654435761u % M;
        std::complex<double> expected = 0;
        for (std::size_t n = 0; n < M; ++n)
          expected += std::complex<double>(z[n].re, z[n].im) * Root(k * n, M);
        if (order % 2) expected /= static_cast<double>(M);
        const double unit = (order % 2 ? 1 / std::sqrt(static_cast<double>(M))
                                       : std::sqrt(static_cast<double>(M))) *
                            2e-6;
        ASSERT_NEAR(expected.real(), Z[k].re, unit) << k;
        ASSERT_NEAR(expected.imag(), Z[k].im, unit) << k;
      }
      ASSERT_EQ(ippStsNoErr, m.ippsFFTFwd_CToC_32fc(same.data(), same.data(), spec, nullptr));
      EXPECT_EQ(0, std::memcmp(same.data(), Z.data(), M * sizeof(Ipp32fc)));
      ASSERT_EQ(ippStsNoErr, m.ippsFFTInv_CToC_32fc(Z.data(), back.data(), spec, work.data()));
      EXPECT_LT(RelativeError(&back[0].re, &z[0].re, 2 * M), 2 * Tolerance(order));
      EXPECT_EQ(ippStsNoErr, m.ippsFFTFree_C_32fc(spec));
    }
}

TEST(Internal, PackedOrderIsTheSpectrumWithoutItsZeros) {
  for (const Members& m : Runnable())
    for (int order = 1; order <= 12; ++order) {
      const Selected selected(m.build);
      RealFft fft(order, 2);
      const std::size_t N = std::size_t{1} << order;
      const auto x = Noise(N, N);
      std::vector<float> ccs(N + 2);
      Guarded<float> packed(N, 4);
      fft.Forward(x.data(), ccs.data());
      ASSERT_EQ(ippStsNoErr,
                m.ippsFFTFwd_RToPack_32f(x.data(), packed.data(), fft.spec, fft.work.data()));
      ccs[1] = ccs[N];
      EXPECT_EQ(0, std::memcmp(ccs.data(), packed.data(), N * sizeof(float)))
          << m.build.limits.name << ", order " << order;
      EXPECT_TRUE(packed.Intact());
    }
}

TEST(Internal, ASpecLivesInTheCallersMemory) {
  for (const Members& m : Runnable())
    for (const int order : {3, 6, 9, 12, 20}) {
      SCOPED_TRACE(std::string(m.build.limits.name) + ", order " + std::to_string(order));
      const Selected selected(m.build);
      int specSize = 0, initSize = 0, workSize = 0;
      ASSERT_EQ(ippStsNoErr, ippsFFTGetSize_R_32f(order, 2, 0, &specSize, &initSize, &workSize));
      Guarded<Ipp8u> memory(static_cast<std::size_t>(specSize), 5),
          init(static_cast<std::size_t>(initSize), 3);
      IppsFFTSpec_R_32f* spec = nullptr;
      EXPECT_EQ(ippStsNullPtrErr,
                m.ippsFFTInit_R_32f(nullptr, 99, 2, 0, memory.data(), init.data()));
      EXPECT_EQ(ippStsFftOrderErr, m.ippsFFTInit_R_32f(&spec, 30, 3, 0, nullptr, init.data()));
      EXPECT_EQ(ippStsNullPtrErr, m.ippsFFTInit_R_32f(&spec, order, 3, 0, nullptr, init.data()));
      EXPECT_EQ(ippStsFftFlagErr,
                m.ippsFFTInit_R_32f(&spec, order, 3, 0, memory.data(), init.data()));
      EXPECT_EQ(order > 10 ? ippStsNullPtrErr : ippStsNoErr,
                m.ippsFFTInit_R_32f(&spec, order, 2, 0, memory.data(), nullptr));
      ASSERT_EQ(ippStsNoErr, m.ippsFFTInit_R_32f(&spec, order, 2, 0, memory.data(), init.data()));
      const std::size_t N = std::size_t{1} << order;
      std::vector<float> x(N + 2, 1.0f);
      ASSERT_EQ(ippStsNoErr, ippsFFTFwd_RToCCS_32f_I(x.data(), spec, nullptr));
      EXPECT_FLOAT_EQ(static_cast<float>(N), x[0]);
      EXPECT_EQ(ippStsNoErr, ippsFFTFree_R_32f(spec));
      EXPECT_EQ(ippStsContextMatchErr, ippsFFTFwd_RToCCS_32f_I(x.data(), spec, nullptr));
      EXPECT_EQ(ippStsContextMatchErr, ippsFFTFree_R_32f(spec));
      EXPECT_TRUE(memory.Intact() && init.Intact());
    }
}

TEST(Internal, ComplexVectorKernelsMeanTheirFormula) {
  for (const Members& m : Runnable())
    for (int len = 1; len <= 40; ++len) {
      SCOPED_TRACE(std::string(m.build.limits.name) + ", len " + std::to_string(len));
      const auto n = static_cast<std::size_t>(len);
      const auto a = ComplexNoise(n, 1), b = ComplexNoise(n, 2);
      Guarded<Ipp32fc> product(n, 8), conjugate(n, 16), zeros(n, 4), scaled(n, 4);
      ASSERT_EQ(ippStsNoErr, m.ippsMul_32fc(a.data(), b.data(), product.data(), len));
      ASSERT_EQ(ippStsNoErr, m.ippsConj_32fc(a.data(), conjugate.data(), len));
      ASSERT_EQ(ippStsNoErr, m.ippsZero_32fc(zeros.data(), len));
      std::copy(a.begin(), a.end(), scaled.data());
      ASSERT_EQ(ippStsNoErr, m.ippsMulC_32f_I(0.25f, &scaled.data()->re, 2 * len));
      for (std::size_t i = 0; i < n; ++i) {
        const std::complex<float> expected =
            std::complex<float>(a[i].re, a[i].im) * std::complex<float>(b[i].re, b[i].im);
        ASSERT_NEAR(expected.real(), product.data()[i].re, 1e-5);
        ASSERT_NEAR(expected.imag(), product.data()[i].im, 1e-5);
        ASSERT_EQ(a[i].re, conjugate.data()[i].re);
        ASSERT_EQ(-a[i].im, conjugate.data()[i].im);
        ASSERT_EQ(0.0f, zeros.data()[i].re + zeros.data()[i].im);
        ASSERT_EQ(0.25f * a[i].im, scaled.data()[i].im);
      }
      auto inPlace = b;
      ASSERT_EQ(ippStsNoErr, m.ippsMul_32fc_I(a.data(), inPlace.data(), len));
      EXPECT_LT(RelativeError(&inPlace[0].re, &product.data()->re, 2 * n), 1e-6);
      EXPECT_TRUE(product.Intact() && conjugate.Intact() && zeros.Intact() && scaled.Intact());
    }
}

TEST(Internal, RefusesAndShortCuts) {
  for (const Members& m : Runnable()) {
    IppsFFTSpec_C_32fc *spec = nullptr, *none = nullptr;
    ASSERT_EQ(ippStsNoErr, m.ippsFFTInitAlloc_C_32fc(&spec, 3, 8, 0));
    IppsFFTSpec_C_32fc foreign = *spec;
    foreign.id = FftSpec::liveReal;
    constexpr auto null = ippStsNullPtrErr, context = ippStsContextMatchErr, length = ippStsSizeErr;
    float x[3] = {std::numeric_limits<float>::quiet_NaN(), 2, 3};
    Ipp32fc z[8] = {};
    int size = 0;
    const struct {
      const char* name;
      IppStatus expected, got;
    } rows[] = {
        {"null", null, m.ippsFFTInitAlloc_C_32fc(nullptr, 3, 8, 0)},
        {"order 29", ippStsFftOrderErr, m.ippsFFTInitAlloc_C_32fc(&none, 29, 8, 0)},
        {"order -1", ippStsFftOrderErr, m.ippsFFTInitAlloc_C_32fc(&none, -1, 8, 0)},
        {"flag", ippStsFftFlagErr, m.ippsFFTInitAlloc_C_32fc(&none, 7, 9, 0)},
        {"size of nothing", null, m.ippsFFTGetBufSize_C_32fc(nullptr, &size)},
        {"size of a foreign spec", context, m.ippsFFTGetBufSize_C_32fc(&foreign, &size)},
        {"forward, foreign", context, m.ippsFFTFwd_CToC_32fc(z, z, &foreign, nullptr)},
        {"inverse, no source", null, m.ippsFFTInv_CToC_32fc(nullptr, z, spec, nullptr)},
        {"free, foreign", context, m.ippsFFTFree_C_32fc(&foreign)},
        {"zero, null", null, m.ippsZero_32f(nullptr, 0)},
        {"zero, length", length, m.ippsZero_32f(x, 0)},
        {"complex zero, null", null, m.ippsZero_32fc(nullptr, 1)},
        {"complex zero, length", length, m.ippsZero_32fc(z, 0)},
        {"factor, null", null, m.ippsMulC_32f_I(1, nullptr, 1)},
        {"factor, length", length, m.ippsMulC_32f_I(1, x, 0)},
        {"conjugate, null", null, m.ippsConj_32fc(z, nullptr, 1)},
        {"conjugate, length", length, m.ippsConj_32fc(z, z, 0)},
        {"product, null", null, m.ippsMul_32fc(z, nullptr, z, 1)},
        {"product, length", length, m.ippsMul_32fc_I(z, z, 0)},
        {"NaN times 0", ippStsNoErr, m.ippsMulC_32f_I(0, x, 1)},
        {"zero", ippStsNoErr, m.ippsZero_32f(x + 1, 1)},
    };
    for (const auto& row : rows)
      EXPECT_EQ(row.expected, row.got) << row.name << ", " << m.build.limits.name;
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ((std::vector<float>{0, 0, 3}), std::vector<float>(x, x + 3));
    m.ippsFFTFree_C_32fc(spec);
  }
}

}  // namespace
