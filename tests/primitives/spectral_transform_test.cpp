#include "primitives/spectral_transform.h"

#include "failure/exceptions.h"
#include "kernels/ipps.h"
#include "support/seed.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

using namespace Orvik::Tesmo;

namespace {

using Signal = std::vector<float>;

TEST(SpectralTransform, RefusalsNameTheKernelAndItsStatus) {
  struct Row {
    std::uint64_t size;
    const char16_t* message;
    IppStatus status;
  };
  const char16_t* fft = u"ippsFFTInitAlloc_R_32f failure";
  const char16_t* dft = u"ippsDFTInitAlloc_R_32f failure";
  const Row rows[] = {
      {0, dft, ippStsSizeErr},
      {134217729, dft, ippStsSizeErr},
      {(1ull << 32) + 480, dft, ippStsSizeErr},
      {~0ull, dft, ippStsSizeErr},
      {1ull << 30, fft, ippStsFftOrderErr},
      {1ull << 40, fft, ippStsFftOrderErr},
      {1ull << 63, fft, ippStsFftOrderErr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.size);
    try {
      CreateSpectralTransform(row.size);
      ADD_FAILURE() << "no exception";
    } catch (const DSP::IPPException& e) {
      EXPECT_EQ(std::u16string(e.message), row.message);
      EXPECT_EQ(e.status, row.status);
    }
  }
}

TEST(SpectralTransform, PackedSpectraOfKnownSignals) {
  const struct {
    Signal x, packed;
  } rows[] = {
      {{3}, {3, 0}},
      {{1, 2, 4}, {7, 0, -2, 2 * std::sqrt(0.75f)}},
      {{1, 2, 4, 8}, {15, 0, -3, 6, -5, 0}},
      {Signal(6, 1.0f), {6, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto& row : rows) {
    Signal packed(row.packed.size(), -99.0f);
    CreateSpectralTransform(row.x.size())->Forward(row.x.data(), packed.data());
    for (std::size_t i = 0; i < packed.size(); ++i)
      EXPECT_NEAR(packed[i], row.packed[i], 1e-5) << row.x.size() << " samples, float " << i;
  }
}

TEST(SpectralTransform, InverseAndInPlaceFormsAgree) {
  std::mt19937_64 random(TestSupport::TestSeed());
  std::uniform_real_distribution<float> sample(-1.0f, 1.0f);
  for (std::size_t N : {1, 2, 3, 4, 6, 15, 16, 17, 32, 53, 106, 441, 480, 512, 1920, 2048, 4410}) {
    SCOPED_TRACE(N);
    const auto transform = CreateSpectralTransform(N);
    const std::size_t size = N % 2 == 0 ? N + 2 : N + 1;
    Signal x(N);
    for (float& v : x)
      v = sample(random);
    Signal packed(size, -99.0f), inPlace(N + 2, -99.0f), back(N + 1, -99.0f);
    transform->Forward(x.data(), packed.data());
    std::copy(x.begin(), x.end(), inPlace.begin());
    transform->ForwardInPlace(inPlace.data());
    EXPECT_EQ(0, std::memcmp(packed.data(), inPlace.data(), size * sizeof(float)));
    EXPECT_EQ(packed[1], 0.0f);
    EXPECT_EQ(N % 2 == 0 ? packed[N + 1] : 0.0f, 0.0f);

    // what stands for the imaginary parts of X[0] and X[N/2] has no influence
    packed[1] = inPlace[1] = NAN;
    if (N % 2 == 0) packed[N + 1] = inPlace[N + 1] = NAN;
    transform->Inverse(packed.data(), back.data());
    EXPECT_EQ(back[N], -99.0f);
    for (std::size_t i = 0; i < N; ++i)
      ASSERT_NEAR(back[i], x[i], 2e-6) << i;
    transform->InverseInPlace(inPlace.data());
    EXPECT_EQ(0, std::memcmp(back.data(), inPlace.data(), N * sizeof(float)));
  }
}

}  // namespace
