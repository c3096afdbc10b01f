#include "primitives/spectral_transform.h"

#include "failure/exceptions.h"
#include "kernels/random.h"
#include "kernels/transform_check.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace Orvik::Tesmo;

namespace {

TEST(SpectralTransform, RefusalsNameTheKernelAndItsStatus) {
  const char16_t* fft = u"ippsFFTInitAlloc_R_32f failure";
  const char16_t* dft = u"ippsDFTInitAlloc_R_32f failure";
  const struct {
    std::uint64_t size;
    const char16_t* message;
    IppStatus status;
  } rows[] = {
      {0, dft, ippStsSizeErr},
      {134217729, dft, ippStsSizeErr},
      {(1ull << 32) + 480, dft, ippStsSizeErr},
      {~0ull, dft, ippStsSizeErr},
      {1ull << 30, fft, ippStsFftOrderErr},
      {1ull << 40, fft, ippStsFftOrderErr},
      {1ull << 63, fft, ippStsFftOrderErr},
  };
  for (const auto& row : rows) {
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

/// One array for both sides goes to the operations in place, which take room for N + 2 floats.
TEST(SpectralTransform, IsTheDefinitionAndItsInverseInBothForms) {
  KernelTest::RandomInput random;
  for (const std::size_t N :
       {1, 2, 3, 4, 6, 15, 16, 17, 32, 53, 106, 441, 480, 512, 1920, 2048, 4410}) {
    const auto transform = CreateSpectralTransform(N);
    const std::size_t packed = N % 2 ? N + 1 : N + 2;
    std::vector<float> room(N + 2);
    KernelTest::Transform check = {"spectral", N, true, IPP_FFT_DIV_INV_BY_N,
                                   KernelTest::anyLengthTolerance};
    const auto form = [&](auto apart, auto inPlace, std::size_t from, std::size_t to) {
      return [=, &transform, &room](const float* src, float* dst, Ipp8u*) {
        if (src != dst) {
          (*transform.*apart)(src, dst);
        } else {
          std::copy_n(src, from, room.data());
          (*transform.*inPlace)(room.data());
          std::copy_n(room.data(), to, dst);
        }
        return ippStsNoErr;
      };
    };
    check.forward =
        form(&SpectralTransform::Forward, &SpectralTransform::ForwardInPlace, N, packed);
    check.inverse =
        form(&SpectralTransform::Inverse, &SpectralTransform::InverseInPlace, packed, N);
    Fuzz::Input input = random.Next();
    EXPECT_NO_THROW(KernelTest::TransformCheck(check, input).Run(KernelTest::Signal::Noise));
  }
}

}  // namespace
