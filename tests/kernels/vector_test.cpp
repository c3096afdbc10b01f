#include "kernels/builds.h"
#include "kernels/element_kernels.h"
#include "support/floating_mode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <map>

using namespace KernelTest;

namespace {

constexpr float inf = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

TEST(Vector, ElementKernelsMeanTheirFormulaAtEveryLengthAndAlignment) {
  std::vector<int> lengths = {127, 1024, 100003};
  for (int n = 1; n <= 67; ++n)
    lengths.push_back(n);
  std::map<int, std::array<std::vector<float>, 3>> operands;
  for (const int len : lengths) {
    const auto n = static_cast<std::size_t>(len);
    auto& three = operands[len] = {Noise(n, n), Noise(n, n + 1), Noise(n, n + 2)};
    three[0][0] = inf;
    three[0][n / 2] = nan;
  }
  for (const auto& build : Builds()) {
    const Selected selected(build);
    for (const auto& kernel : elementKernels)
      for (const int len : lengths)
        for (std::size_t offset = 0; offset<32; offset += len> 67 ? 13 : 1) {
          SCOPED_TRACE(std::string(kernel.name) + ", " + build.limits.name + ", len " +
                       std::to_string(len) + ", offset " + std::to_string(offset));
          const auto n = static_cast<std::size_t>(len);
          const auto& [x, y, z] = operands.at(len);
          Guarded<float> a(x, Scatter(offset, 0)), b(y, Scatter(offset, 1)), dst(z, offset);
          ASSERT_EQ(ippStsNoErr, kernel.run(a.data(), b.data(), dst.data(), len));
          const std::vector<float> out = dst.Values();
          for (std::size_t i = 0; i < n; ++i)
            ASSERT_TRUE(Same(kernel.meaning(x[i], y[i], z[i]), out[i])) << i << ": " << out[i];
          ASSERT_TRUE(dst.Intact() && a.Intact() && b.Intact());
          // In place: source and destination one array.
          dst.Set(x);
          ASSERT_EQ(ippStsNoErr, kernel.run(dst.data(), b.data(), dst.data(), len));
          const std::vector<float> inPlace = dst.Values();
          for (std::size_t i = 0; i < n; ++i)
            ASSERT_TRUE(Same(kernel.meaning(x[i], y[i], x[i]), inPlace[i])) << i;
        }
  }
}

TEST(Vector, SqrtReportsNegativesAndKeepsTheRest) {
  const struct {
    const char* name;
    float special, root;
    IppStatus status;
  } rows[] = {{"none", 4.0f, 2.0f, ippStsNoErr},
              {"zero", 0.0f, 0.0f, ippStsNoErr},
              {"negative zero", -0.0f, -0.0f, ippStsNoErr},
              {"negative", -1.0f, nan, ippStsSqrtNegArg},
              {"infinity", inf, inf, ippStsNoErr},
              {"minus infinity", -inf, nan, ippStsSqrtNegArg},
              {"NaN", nan, nan, ippStsNoErr},
              {"denormal", 1e-40f, std::sqrt(1e-40f), ippStsNoErr}};
  for (const auto& build : Builds()) {
    const Selected selected(build);
    for (const auto& row : rows)
      for (const int len : {1, 3, 16, 17, 40, 129})
        for (std::size_t offset = 0; offset < 32; ++offset) {
          SCOPED_TRACE(std::string(row.name) + ", " + build.limits.name + ", len " +
                       std::to_string(len) + ", offset " + std::to_string(offset));
          const auto n = static_cast<std::size_t>(len);
          auto input = Noise(n, n);
          for (float& v : input)
            v = std::abs(v);
          input[n / 2] = row.special;
          Guarded<float> x(input, offset);
          const unsigned control = _mm_getcsr();
          ASSERT_EQ(row.status, ippsSqrt_32f_I(x.data(), len));
          EXPECT_EQ(control & ~0x3Au, _mm_getcsr() & ~0x3Au);
          const std::vector<float> root = x.Values();
          for (std::size_t i = 0; i < n; ++i)
            if (i == n / 2)
              ASSERT_TRUE(Same(row.root, root[i]) || std::abs(row.root - root[i]) < 1e-6 * row.root)
                  << root[i];
            else
              ASSERT_NEAR(std::sqrt(input[i]), root[i], 2e-6 * std::sqrt(input[i])) << i;
          ASSERT_TRUE(x.Intact());
        }
  }
}

/// Moves it and computes nothing: in a mode in which denormals would be lost and signalling NaNs
/// trap.
TEST(Vector, InterleavingMovesEveryFrame) {
  TestSupport::InMode in(TestSupport::floatingModes[9]);
  for (const auto& build : Builds()) {
    const Selected selected(build);
    for (int channels = 1; channels <= 17; ++channels)
      for (const int len : {1, 2, 3, 4, 5, 7, 8, 9, 16, 31, 64, 100})
        for (const std::size_t offset : {0, (5 * len + channels) % 32}) {
          SCOPED_TRACE(std::string(build.limits.name) + ", channels " + std::to_string(channels) +
                       ", len " + std::to_string(len) + ", offset " + std::to_string(offset));
          const auto n = static_cast<std::size_t>(len),
                     total = n * static_cast<std::size_t>(channels);
          const std::size_t last = Scatter(offset, 0);  // of the last channel
          const IppStatus status = (offset | last) % 16 ? ippStsMisalignedBuf : ippStsNoErr;
          auto noise = Mixed(total, total);
          noise[total / 2] = std::bit_cast<float>(0x7FA00000U);
          std::vector<Guarded<float>> planar;
          planar.reserve(static_cast<std::size_t>(channels));
          for (int c = 0; c < channels; ++c)
            planar.emplace_back(n, c + 1 == channels ? last : 0);
          std::vector<float*> pointers(planar.size());
          std::ranges::transform(planar, pointers.begin(), [](auto& one) { return one.data(); });
          Guarded<float> flat(noise, offset), back(total, offset);
          IppStatus statuses[2] = {};
          in.Run([&] {
            statuses[0] = ippsDeinterleave_32f(flat.data(), channels, len, pointers.data());
            statuses[1] = ippsInterleave_32f(pointers.data(), channels, len, back.data());
          });
          ASSERT_EQ(status, statuses[0]);
          ASSERT_EQ(status, statuses[1]);
          for (std::size_t c = 0; c < planar.size(); ++c) {
            const std::vector<float> channel = planar[c].Values();
            for (std::size_t i = 0; i < n; ++i)
              ASSERT_TRUE(Same(noise[i * planar.size() + c], channel[i])) << c << ", " << i;
            ASSERT_TRUE(planar[c].Intact()) << c;
          }
          ASSERT_EQ(0, std::memcmp(noise.data(), back.data(), total * sizeof(float)));
          ASSERT_TRUE(back.Intact());
        }
  }
}

TEST(Vector, RefusesBeforeWriting) {
  for (const auto& build : Builds()) {
    const Selected selected(build);
    SCOPED_TRACE(build.limits.name);
    std::vector<float> x(8, 1.0f), y(8, 7.0f);
    const std::vector<float> untouched = y;
    float* channel[] = {y.data(), nullptr};
    const float* source[] = {x.data(), nullptr};
    float *d = y.data(), **c = channel;
    const float *s = x.data(), *const *p = source;
    struct Row {
      const char* name;
      IppStatus expected, got;
    };
    std::vector<Row> rows;
    for (const auto& k : elementKernels) {
      rows.push_back({k.name, ippStsNullPtrErr, k.run(nullptr, s, d, 0)});
      rows.push_back({k.name, ippStsNullPtrErr, k.run(s, s, nullptr, 8)});
      rows.push_back({k.name, ippStsSizeErr, k.run(s, s, d, 0)});
      rows.push_back({k.name, ippStsSizeErr, k.run(s, s, d, -8)});
    }
    rows.push_back({"Add second", ippStsNullPtrErr, ippsAdd_32f(s, nullptr, d, 8)});
    rows.push_back({"Mul second", ippStsNullPtrErr, ippsMul_32f(s, nullptr, d, 8)});
    rows.push_back({"Sqrt", ippStsNullPtrErr, ippsSqrt_32f_I(nullptr, 0)});
    rows.push_back({"Sqrt", ippStsSizeErr, ippsSqrt_32f_I(d, 0)});
    rows.push_back({"Interleave source", ippStsNullPtrErr, ippsInterleave_32f(nullptr, 0, 0, d)});
    rows.push_back(
        {"Interleave destination", ippStsNullPtrErr, ippsInterleave_32f(p, 0, 0, nullptr)});
    rows.push_back({"Interleave channels", ippStsNumChannelsErr, ippsInterleave_32f(p, 0, 0, d)});
    rows.push_back({"Interleave length", ippStsSizeErr, ippsInterleave_32f(p, 2, 0, d)});
    rows.push_back({"Interleave channel", ippStsNullPtrErr, ippsInterleave_32f(p, 2, 4, d)});
    rows.push_back(
        {"Deinterleave source", ippStsNullPtrErr, ippsDeinterleave_32f(nullptr, 0, 0, c)});
    rows.push_back(
        {"Deinterleave channels", ippStsNumChannelsErr, ippsDeinterleave_32f(s, -1, 0, c)});
    rows.push_back({"Deinterleave length", ippStsSizeErr, ippsDeinterleave_32f(s, 2, 0, c)});
    rows.push_back({"Deinterleave channel", ippStsNullPtrErr, ippsDeinterleave_32f(s, 2, 4, c)});
    for (const Row& row : rows)
      EXPECT_EQ(row.expected, row.got) << row.name;
    EXPECT_EQ(untouched, y);
  }
}

}  // namespace
