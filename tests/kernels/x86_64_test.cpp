// What the builds for x86-64 and the choice between them rest on.

#include "kernels/build.h"
#include "kernels/fft/plan.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <set>
#include <string>

using namespace Orvik::Tesmo::Kernels;

namespace {

/// Indices with equal letters run the code of one build.
TEST(Dispatch, EachEntryRunsTheBuildsOfItsGroup) {
  const std::map<std::string, std::set<std::string>> expected = {
      {"AABCDEFG",
       {"ippsDFTInitAlloc_R_32f", "ippsDFTFwd_RToCCS_32f", "ippsDFTInv_CCSToR_32f",
        "ippsFFTGetSize_R_32f", "ippsFFTInitAlloc_R_32f", "ippsFFTFwd_RToCCS_32f",
        "ippsFFTInv_CCSToR_32f", "ippsFFTFwd_RToCCS_32f_I", "ippsFFTInv_CCSToR_32f_I"}},
      {"AAABAAAA", {"ippsDFTFree_R_32f", "ippsFFTFree_R_32f"}},
      {"AAAAAAAA", {"ippsDFTGetBufSize_R_32f"}},
      {"AABBCDEF",
       {"ippsCopy_32f", "ippsMulC_32f", "ippsSqrt_32f_I", "ippsInterleave_32f",
        "ippsDeinterleave_32f"}},
      {"AABBACDE", {"ippsMul_32f_I", "ippsAdd_32f", "ippsMul_32f", "ippsAddProductC_32f"}},
  };
  int count = 0;
  const Entry* entries = Entries(count);
  std::map<std::string, std::set<std::string>> got;
  for (int i = 0; i < count; ++i) {
    std::string letters;
    std::map<const Build*, char> seen;
    for (int v = 0; v < variantCount; ++v)
      letters +=
          seen.emplace(entries[i].variants[v], static_cast<char>('A' + seen.size())).first->second;
    got[letters].insert(entries[i].name);
  }
  EXPECT_EQ(expected, got);
}

TEST(FftPlan, SizesFollowTheOrder) {
  const struct {
    const Build& build;
    int order, initSize, workSize;
  } rows[] = {
      {sse3::build, 6, 0, 0},
      {sse3::build, 7, 0, 544},
      {sse3::build, 10, 0, 4128},
      {sse3::build, 11, 2112, 8224},
      {sse3::build, 17, 131136, 524320},
      {sse3::build, 18, 262208, 65568},      // 2^13 values of a piece
      {sse3::build, 21, 2097216, 524320},    // 2^16
      {sse3::build, 22, 4194368, 262176},    // 2^15
      {sse3::build, 29, 536870976, 524320},  // pieces of 2^20, then 2^16
      {ssse3::build, 18, 262208, 1048608},
      {ssse3::build, 19, 524352, 131104},  // 2^14
      {sse3b::build, 16, 65600, 262176},
      {sse3b::build, 17, 131136, 32800},  // 2^12
      {sse41::build, 18, 262208, 1048608},
      {sse41::build, 19, 524352, 131104},  // 2^14
      {avx::build, 7, 0, 0},
      {avx::build, 8, 0, 1056},
      {avx::build, 19, 524352, 2097184},
      {avx::build, 20, 1048640, 262176},  // 2^15
      {avx512::build, 9, 0, 0},
      {avx512::build, 10, 0, 4160},  // room to align to 64
  };
  for (const auto& row : rows) {
    const FftLayout layout = LayoutOf(row.build.limits, row.order, true);
    EXPECT_EQ(row.initSize, layout.initSize) << row.build.name << ", order " << row.order;
    EXPECT_EQ(row.workSize, layout.workSize) << row.build.name << ", order " << row.order;
  }
}

TEST(Cpu, ReadsEachFeatureFromABitOfItsOwn) {
  const struct {
    bool CpuFeatures::*feature;
    bool isInEdx;
    int bit;
  } rows[] = {
      {&CpuFeatures::mmx, true, 23},    {&CpuFeatures::sse, true, 25},
      {&CpuFeatures::sse2, true, 26},   {&CpuFeatures::sse3, false, 0},
      {&CpuFeatures::ssse3, false, 9},  {&CpuFeatures::sse41, false, 19},
      {&CpuFeatures::sse42, false, 20}, {&CpuFeatures::movbe, false, 22},
  };
  for (const auto& set : rows) {
    const std::uint32_t bits = 1u << set.bit;
    const CpuFeatures found =
        FeaturesOf({0, 0, set.isInEdx ? 0 : bits, set.isInEdx ? bits : 0}, {}, 7);
    for (const auto& asked : rows)
      EXPECT_EQ(found.*asked.feature, &set == &asked) << set.bit << ", " << asked.bit;
  }
}

TEST(Cpu, FindsTheBestBuild) {
  constexpr std::uint32_t sse3 = 1, ssse3 = 1u << 9, fma = 1u << 12, sse41 = 1u << 19,
                          osxsave = 1u << 27, avx = 1u << 28, avx2 = 1u << 5;
  constexpr std::uint32_t old = sse3 | ssse3 | sse41, saved = old | osxsave | avx;
  const struct {
    const char* name;
    std::uint32_t ecx, ebx7, xcr0;
    std::int32_t best;
  } rows[] = {
      {"bare", sse3, 0, 0, 0},
      {"SSSE3", sse3 | ssse3, 0, 0, 2},
      {"SSE4.1", old, 0, 0, 4},
      {"SSE4.1 without SSSE3", sse3 | sse41, 0, 0, 0},
      {"AVX", saved, 0, 7, 5},
      {"AVX that the system does not save", saved, 0, 3, 4},
      {"AVX without XSAVE", old | avx, 0, 0, 4},
      {"XSAVE without AVX", old | osxsave, 0, 7, 4},
      {"AVX2 and FMA", saved | fma, avx2, 7, 6},
      {"FMA without AVX2", saved | fma, 0, 7, 5},
      {"AVX2 without FMA", saved, avx2, 7, 5},
      {"AVX2 that the system does not save", saved | fma, avx2, 3, 4},
      {"AVX2 without XSAVE", old | avx | fma, avx2, 7, 4},
  };
  for (const auto& row : rows)
    EXPECT_EQ(row.best, BestVariant(FeaturesOf({0, 0, row.ecx, 0}, {0, row.ebx7, 0, 0}, row.xcr0)))
        << row.name;
}

TEST(Cpu, RunsAvx512WhereAllOfItIsThereAndSaved) {
  constexpr std::uint32_t ecx = 1u | 1u << 9 | 1u << 12 | 1u << 19 | 1u << 27 | 1u << 28,
                          ebx7 = 1u << 5 | 1u << 16 | 1u << 17 | 1u << 31, xcr0 = 0xE7;
  const auto features = [](std::uint32_t c, std::uint32_t b, std::uint32_t x) {
    return FeaturesOf({0, 0, c, 0}, {0, b, 0, 0}, x);
  };
  EXPECT_TRUE(Runs(avx512::build, features(ecx, ebx7, xcr0)));
  for (const int bit : {12, 27})
    EXPECT_FALSE(Runs(avx512::build, features(ecx & ~(1u << bit), ebx7, xcr0))) << bit;
  for (const int bit : {5, 16, 17, 31})
    EXPECT_FALSE(Runs(avx512::build, features(ecx, ebx7 & ~(1u << bit), xcr0))) << bit;
  for (const int bit : {1, 2, 5, 6, 7})
    EXPECT_FALSE(Runs(avx512::build, features(ecx, ebx7, xcr0 & ~(1u << bit)))) << bit;
  // only by hand
  EXPECT_EQ(avx2::build.index, BestVariant(features(ecx, ebx7, xcr0)));
}

constexpr CpuidLeaf Vendor(std::uint32_t maxLeaf) {
  return {maxLeaf, 0x756E6547, 0x6C65746E, 0x49656E69};
}
/// Leaf 4: type, ways, partitions, line, sets.
constexpr CpuidLeaf Cache(std::uint32_t type, std::uint32_t ways, std::uint32_t partitions,
                          std::uint32_t line, std::uint32_t sets) {
  return {type, (ways - 1) << 22 | (partitions - 1) << 12 | (line - 1), sets - 1, 0};
}

TEST(Cpu, ReadsTheLargestCache) {
  struct Row {
    const char* name;
    CpuidLeaf vendor, leaf2;
    std::array<CpuidLeaf, 4> leaf4;
    IppStatus status;
    std::int32_t bytes;
  };
  const CpuidLeaf otherVendor = {16, 0x68747541, 0x444D4163, 0x69746E65};
  const std::array<CpuidLeaf, 4> none = {};
  const std::array caches = {Cache(1, 8, 1, 64, 64), Cache(2, 16, 16, 64, 4096),
                             Cache(3, 8, 1, 64, 1024), Cache(3, 16, 1, 64, 8192)};
  const Row rows[] = {
      {"another maker", otherVendor, {}, caches, ippStsNotSupportedCpu, 0},
      {"too few leaves", Vendor(1), {}, caches, ippStsNotSupportedCpu, 0},
      {"leaf 4", Vendor(4), {}, caches, ippStsNoErr, 16 * 64 * 8192},
      {"leaf 4, no cache", Vendor(4), {}, none, ippStsUnknownCacheSize, 0},
      {"leaf 2", Vendor(2), {0x665B5001, 0, 0, 0x007A7043}, none, ippStsNoErr, 512 * 1024},
      {"last byte", Vendor(2), {1, 0, 0, 0x3C000000}, none, ippStsNoErr, 256 * 1024},
      {"empty register", Vendor(3), {1, 0x800000EC, 0x41, 0}, none, ippStsNoErr, 128 * 1024},
      {"to be read again", Vendor(2), {2, 0xEC, 0, 0}, none, ippStsUnknownCacheSize, 0},
      {"nothing known", Vendor(2), {1, 0xFF, 0, 0}, none, ippStsUnknownCacheSize, 0},
  };
  static const Row* current = nullptr;
  const CpuidReader cpuid = [](std::uint32_t leaf, std::uint32_t sub) {
    if (leaf == 0) return current->vendor;
    if (leaf == 2) return current->leaf2;
    return leaf == 4 && sub < 4 ? current->leaf4[sub] : CpuidLeaf{};
  };
  for (const Row& row : rows) {
    current = &row;
    std::int32_t bytes = -1;
    EXPECT_EQ(row.status, MaxCacheSize(cpuid, bytes)) << row.name;
    EXPECT_EQ(row.bytes, bytes) << row.name;
  }
  // all that Intel publishes, summed up
  std::int64_t known = 0, sum = 0;
  for (std::uint32_t code = 1; code < 256; ++code) {
    const Row row = {"each", Vendor(2), {1, code, 0, 0}, none, ippStsNoErr, 0};
    current = &row;
    std::int32_t bytes = 0;
    known += MaxCacheSize(cpuid, bytes) == ippStsNoErr ? 1 : 0;
    sum += bytes;
  }
  EXPECT_EQ(known, 55);
  EXPECT_EQ(sum, 185664 * 1024);
}

}  // namespace
