#include "primitives/spectral_transform.h"

#include "failure/exceptions.h"
#include "kernels/transform_checks.h"

#include <cmath>
#include <gtest/gtest.h>
#include <memory>
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

/// By the operation in place where both arrays are one.
struct EitherForm {
  void Forward(const float* src, float* dst) {
    if (src == dst)
      transform->ForwardInPlace(dst);
    else
      transform->Forward(src, dst);
  }
  void Inverse(const float* src, float* dst) {
    if (src == dst)
      transform->InverseInPlace(dst);
    else
      transform->Inverse(src, dst);
  }
  std::unique_ptr<SpectralTransform> transform;
};

TEST(SpectralTransform, InverseAndInPlaceFormsAgree) {
  for (std::size_t N : {1, 2, 3, 4, 6, 15, 16, 17, 32, 53, 106, 441, 480, 512, 1920, 2048, 4410}) {
    SCOPED_TRACE(N);
    EitherForm transform = {CreateSpectralTransform(N)};
    Signal spectrum;
    KernelTest::CheckRoundTrip(transform, KernelTest::Noise(N, N), spectrum, 5e-7);
  }
}

}  // namespace
