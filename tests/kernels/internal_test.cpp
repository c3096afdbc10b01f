// What other kernels of a build call without passing through the table.
#include "kernels/fft_support.h"

#include "kernels/fft/spec.h"

#define KERNELS_BUILD sse3
#include "kernels/builds/members.h"
#undef KERNELS_BUILD
#define KERNELS_BUILD avx
#include "kernels/builds/members.h"
#undef KERNELS_BUILD

using namespace KernelTest;

namespace {

struct Members {
  const char* name;
  int index;
  decltype(&sse3::ippsFFTInitAlloc_C_32fc) initAlloc;
  decltype(&sse3::ippsFFTFree_C_32fc) free;
  decltype(&sse3::ippsFFTGetBufSize_C_32fc) bufSize;
  decltype(&sse3::ippsFFTFwd_CToC_32fc) forward, inverse;
  decltype(&sse3::ippsFFTFwd_RToPack_32f) forwardToPack;
  decltype(&sse3::ippsFFTInit_R_32f) init;
  decltype(&sse3::ippsMulC_32f_I) mulC;
  decltype(&sse3::ippsConj_32fc) conj;
  decltype(&sse3::ippsMul_32fc) mul;
  decltype(&sse3::ippsMul_32fc_I) mulInPlace;
  decltype(&sse3::ippsZero_32f) zero;
  decltype(&sse3::ippsZero_32fc) zeroComplex;
};
#define MEMBERS(build, index)                                                                      \
  {                                                                                                \
#build, index, build::ippsFFTInitAlloc_C_32fc, build::ippsFFTFree_C_32fc,                      \
        build::ippsFFTGetBufSize_C_32fc, build::ippsFFTFwd_CToC_32fc, build::ippsFFTInv_CToC_32fc, \
        build::ippsFFTFwd_RToPack_32f, build::ippsFFTInit_R_32f, build::ippsMulC_32f_I,            \
        build::ippsConj_32fc, build::ippsMul_32fc, build::ippsMul_32fc_I, build::ippsZero_32f,     \
        build::ippsZero_32fc                                                                       \
  }
std::vector<Members> Runnable() {
  std::vector<Members> all = {MEMBERS(sse3, 0)};
  if (ippBestVariantIndex() == 5) all.push_back(MEMBERS(avx, 5));
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
      SCOPED_TRACE(std::string(m.name) + ", order " + std::to_string(order));
      const std::size_t M = std::size_t{1} << order;
      IppsFFTSpec_C_32fc* spec = nullptr;
      ASSERT_EQ(
          ippStsNoErr,
          m.initAlloc(&spec, order, order % 2 ? IPP_FFT_DIV_FWD_BY_N : IPP_FFT_DIV_INV_BY_N, 0));
      int size = -1;
      ASSERT_EQ(ippStsNoErr, m.bufSize(spec, &size));
      std::vector<Ipp8u> work(static_cast<std::size_t>(size) + 1);
      const auto z = ComplexNoise(M, M);
      std::vector<Ipp32fc> Z(M), same = z, back(M);
      ASSERT_EQ(ippStsNoErr, m.forward(z.data(), Z.data(), spec, work.data()));
      for (int probe = 0; probe < 8; ++probe) {
        const std::size_t k = static_cast<std::size_t>(probe) * 2654435761u % M;
        std::complex<double> expected = 0;
        for (std::size_t n = 0; n < M; ++n)
          expected += std::complex<double>(z[n].re, z[n].im) *
                      std::polar(1.0, -2 * std::numbers::pi * static_cast<double>(k * n % M) /
                                          static_cast<double>(M));
        if (order % 2) expected /= static_cast<double>(M);
        const double unit = (order % 2 ? 1 / std::sqrt(static_cast<double>(M))
                                       : std::sqrt(static_cast<double>(M))) *
                            2e-6;
        ASSERT_NEAR(expected.real(), Z[k].re, unit) << k;
        ASSERT_NEAR(expected.imag(), Z[k].im, unit) << k;
      }
      ASSERT_EQ(ippStsNoErr, m.forward(same.data(), same.data(), spec, nullptr));
      EXPECT_EQ(0, std::memcmp(same.data(), Z.data(), M * sizeof(Ipp32fc)));
      ASSERT_EQ(ippStsNoErr, m.inverse(Z.data(), back.data(), spec, work.data()));
      EXPECT_LT(RelativeError(&back[0].re, &z[0].re, 2 * M), 2 * Tolerance(order));
      EXPECT_EQ(ippStsNoErr, m.free(spec));
    }
}

TEST(ComplexFft, Refuses) {
  for (const Members& m : Runnable()) {
    IppsFFTSpec_C_32fc *spec = nullptr, *none = nullptr;
    ASSERT_EQ(ippStsNoErr, m.initAlloc(&spec, 3, 8, 0));
    IppsFFTSpec_C_32fc foreign = *spec;
    foreign.id = FftSpec::liveReal;
    Ipp32fc z[8] = {};
    int size = 0;
    const struct {
      const char* name;
      IppStatus expected, got;
    } rows[] = {{"null", ippStsNullPtrErr, m.initAlloc(nullptr, 3, 8, 0)},
                {"order 29", ippStsFftOrderErr, m.initAlloc(&none, 29, 8, 0)},
                {"order -1", ippStsFftOrderErr, m.initAlloc(&none, -1, 8, 0)},
                {"flag", ippStsFftFlagErr, m.initAlloc(&none, 7, 9, 0)},
                {"size of nothing", ippStsNullPtrErr, m.bufSize(nullptr, &size)},
                {"size of a foreign spec", ippStsContextMatchErr, m.bufSize(&foreign, &size)},
                {"forward, foreign", ippStsContextMatchErr, m.forward(z, z, &foreign, nullptr)},
                {"inverse, no source", ippStsNullPtrErr, m.inverse(nullptr, z, spec, nullptr)},
                {"free, foreign", ippStsContextMatchErr, m.free(&foreign)}};
    for (const auto& row : rows)
      EXPECT_EQ(row.expected, row.got) << row.name << ", " << m.name;
    EXPECT_EQ(nullptr, none);
    m.free(spec);
  }
}

TEST(Internal, PackedOrderIsTheSpectrumWithoutItsZeros) {
  for (const Members& m : Runnable())
    for (int order = 1; order <= 12; ++order) {
      ippVariantIndex = m.index;
      RealFft fft(order, 2);
      const std::size_t N = std::size_t{1} << order;
      const auto x = Noise(N, N);
      std::vector<float> ccs(N + 2);
      Guarded<float> packed(N, 4);
      fft.Forward(x.data(), ccs.data());
      ASSERT_EQ(ippStsNoErr, m.forwardToPack(x.data(), packed.data(), fft.spec, fft.work.data()));
      ccs[1] = ccs[N];
      EXPECT_EQ(0, std::memcmp(ccs.data(), packed.data(), N * sizeof(float)))
          << m.name << ", order " << order;
      EXPECT_TRUE(packed.Intact());
      ippVariantIndex = 0;
    }
}

TEST(Internal, ASpecLivesInTheCallersMemory) {
  for (const Members& m : Runnable())
    for (const int order : {3, 6, 9, 12, 20}) {
      SCOPED_TRACE(std::string(m.name) + ", order " + std::to_string(order));
      ippVariantIndex = m.index;
      int specSize = 0, initSize = 0, workSize = 0;
      ASSERT_EQ(ippStsNoErr, ippsFFTGetSize_R_32f(order, 2, 0, &specSize, &initSize, &workSize));
      Guarded<Ipp8u> memory(static_cast<std::size_t>(specSize), 5),
          init(static_cast<std::size_t>(initSize), 3);
      IppsFFTSpec_R_32f* spec = nullptr;
      EXPECT_EQ(ippStsNullPtrErr, m.init(nullptr, 99, 2, 0, memory.data(), init.data()));
      EXPECT_EQ(ippStsFftOrderErr, m.init(&spec, 30, 3, 0, nullptr, init.data()));
      EXPECT_EQ(ippStsNullPtrErr, m.init(&spec, order, 3, 0, nullptr, init.data()));
      EXPECT_EQ(ippStsFftFlagErr, m.init(&spec, order, 3, 0, memory.data(), init.data()));
      EXPECT_EQ(order > 10 ? ippStsNullPtrErr : ippStsNoErr,
                m.init(&spec, order, 2, 0, memory.data(), nullptr));
      ASSERT_EQ(ippStsNoErr, m.init(&spec, order, 2, 0, memory.data(), init.data()));
      const std::size_t N = std::size_t{1} << order;
      std::vector<float> x(N + 2, 1.0f);
      ASSERT_EQ(ippStsNoErr, ippsFFTFwd_RToCCS_32f_I(x.data(), spec, nullptr));
      EXPECT_FLOAT_EQ(static_cast<float>(N), x[0]);
      EXPECT_EQ(ippStsNoErr, ippsFFTFree_R_32f(spec));
      EXPECT_EQ(ippStsContextMatchErr, ippsFFTFwd_RToCCS_32f_I(x.data(), spec, nullptr));
      EXPECT_EQ(ippStsContextMatchErr, ippsFFTFree_R_32f(spec));
      EXPECT_TRUE(memory.Intact() && init.Intact());
      ippVariantIndex = 0;
    }
}

TEST(Internal, ComplexVectorKernelsMeanTheirFormula) {
  for (const Members& m : Runnable())
    for (int len = 1; len <= 40; ++len) {
      SCOPED_TRACE(std::string(m.name) + ", len " + std::to_string(len));
      const auto n = static_cast<std::size_t>(len);
      const auto a = ComplexNoise(n, 1), b = ComplexNoise(n, 2);
      Guarded<Ipp32fc> product(n, 8), conjugate(n, 16), zeros(n, 4), scaled(n, 4);
      ASSERT_EQ(ippStsNoErr, m.mul(a.data(), b.data(), product.data(), len));
      ASSERT_EQ(ippStsNoErr, m.conj(a.data(), conjugate.data(), len));
      ASSERT_EQ(ippStsNoErr, m.zeroComplex(zeros.data(), len));
      std::copy(a.begin(), a.end(), scaled.data());
      ASSERT_EQ(ippStsNoErr, m.mulC(0.25f, &scaled.data()->re, 2 * len));
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
      ASSERT_EQ(ippStsNoErr, m.mulInPlace(a.data(), inPlace.data(), len));
      EXPECT_LT(RelativeError(&inPlace[0].re, &product.data()->re, 2 * n), 1e-6);
      EXPECT_TRUE(product.Intact() && conjugate.Intact() && zeros.Intact() && scaled.Intact());
    }
}

TEST(Internal, VectorKernelsRefuseAndShortCut) {
  constexpr float nan = std::numeric_limits<float>::quiet_NaN();
  for (const Members& m : Runnable()) {
    float x[3] = {nan, 2, 3};
    Ipp32fc z[1] = {};
    EXPECT_EQ(ippStsNullPtrErr, m.zero(nullptr, 0)) << m.name;
    EXPECT_EQ(ippStsSizeErr, m.zero(x, 0)) << m.name;
    EXPECT_EQ(ippStsNullPtrErr, m.zeroComplex(nullptr, 1)) << m.name;
    EXPECT_EQ(ippStsSizeErr, m.zeroComplex(z, 0)) << m.name;
    EXPECT_EQ(ippStsNullPtrErr, m.mulC(1, nullptr, 1)) << m.name;
    EXPECT_EQ(ippStsSizeErr, m.mulC(1, x, 0)) << m.name;
    EXPECT_EQ(ippStsNullPtrErr, m.conj(z, nullptr, 1)) << m.name;
    EXPECT_EQ(ippStsSizeErr, m.conj(z, z, 0)) << m.name;
    EXPECT_EQ(ippStsNullPtrErr, m.mul(z, nullptr, z, 1)) << m.name;
    EXPECT_EQ(ippStsSizeErr, m.mulInPlace(z, z, 0)) << m.name;
    EXPECT_EQ(ippStsNoErr, m.mulC(0, x, 1)) << m.name;
    EXPECT_EQ(0.0f, x[0]) << m.name;
    EXPECT_EQ(ippStsNoErr, m.zero(x + 1, 1)) << m.name;
    EXPECT_EQ(0.0f, x[1]) << m.name;
    EXPECT_EQ(3.0f, x[2]) << m.name;
  }
}

}  // namespace
