#include "kernels/dispatch.h"

#include "kernels/builds.h"

#include <gtest/gtest.h>

#include <map>

using namespace KernelTest;

namespace {

TEST(Dispatch, EntriesShareCodeByTheirLetters) {
  const std::map<std::string, std::string> letters = {
      {"ippsDFTInitAlloc_R_32f", "AABCDE"},
      {"ippsDFTFree_R_32f", "AAABAA"},
      {"ippsDFTGetBufSize_R_32f", "AAAAAA"},
      {"ippsDFTFwd_RToCCS_32f", "AABCDE"},
      {"ippsDFTInv_CCSToR_32f", "AABCDE"},
      {"ippsFFTGetSize_R_32f", "AABCDE"},
      {"ippsFFTInitAlloc_R_32f", "AABCDE"},
      {"ippsFFTFree_R_32f", "AAABAA"},
      {"ippsFFTFwd_RToCCS_32f", "AABCDE"},
      {"ippsFFTInv_CCSToR_32f", "AABCDE"},
      {"ippsFFTFwd_RToCCS_32f_I", "AABCDE"},
      {"ippsFFTInv_CCSToR_32f_I", "AABCDE"},
      {"ippsCopy_32f", "AABBCD"},
      {"ippsMulC_32f", "AABBCD"},
      {"ippsMul_32f_I", "AABBAC"},
      {"ippsAdd_32f", "AABBAC"},
      {"ippsMul_32f", "AABBAC"},
      {"ippsSqrt_32f_I", "AABBCD"},
      {"ippsAddProductC_32f", "AABBAC"},
      {"ippsInterleave_32f", "AABBCD"},
      {"ippsDeinterleave_32f", "AABBCD"},
  };
  int count = 0;
  const VariantRow* rows = VariantRows(count);
  EXPECT_EQ(letters.size(), static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    const auto expected = letters.find(rows[i].name);
    ASSERT_NE(letters.end(), expected) << rows[i].name;
    std::string got;
    std::map<const void*, char> seen;
    for (int v = 0; v < variantCount; ++v)
      got += seen.emplace(rows[i].entry[v], static_cast<char>('A' + seen.size())).first->second;
    EXPECT_EQ(expected->second, got) << rows[i].name;
  }
}

TEST(Dispatch, StartsAtEntryZero) {
  EXPECT_EQ(0, ippVariantIndex);
}

TEST(Memory, BlocksAreAligned) {
  for (const std::int32_t length : {1, 31, 32, 33, 1000}) {
    Ipp8u* block = ippsMalloc(length);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(block) % 32) << length;
    std::memset(block, 1, static_cast<std::size_t>(length));
    ippsFree(block);
  }
  for (const std::int32_t length : {0, -1, std::numeric_limits<std::int32_t>::min()})
    EXPECT_EQ(nullptr, ippsMalloc(length)) << length;
  ippsFree(nullptr);
}

TEST(Cpu, FindsTheBestBuild) {
  constexpr std::uint32_t sse3 = 1, ssse3 = 1u << 9, sse41 = 1u << 19, osxsave = 1u << 27,
                          avx = 1u << 28;
  const struct {
    const char* name;
    std::uint32_t ecx, xcr0;
    std::int32_t best;
  } rows[] = {
      {"bare", sse3, 0, 0},
      {"SSSE3", sse3 | ssse3, 0, 2},
      {"SSE4.1", sse3 | ssse3 | sse41, 0, 4},
      {"SSE4.1 without SSSE3", sse3 | sse41, 0, 0},
      {"AVX", sse3 | ssse3 | sse41 | osxsave | avx, 7, 5},
      {"AVX that the system does not save", sse3 | ssse3 | sse41 | osxsave | avx, 3, 4},
      {"AVX without XSAVE", sse3 | ssse3 | sse41 | avx, 0, 4},
      {"XSAVE without AVX", sse3 | ssse3 | sse41 | osxsave, 7, 4},
  };
  for (const auto& row : rows)
    EXPECT_EQ(row.best, BestVariant(FeaturesOf({0, 0, row.ecx, 0}, row.xcr0))) << row.name;
  const CpuFeatures all = FeaturesOf({0, 0, 0xFFFFFFFF, 0xFFFFFFFF}, 6), none = FeaturesOf({}, 6);
  EXPECT_TRUE(all.mmx && all.sse && all.sse2 && all.sse3 && all.ssse3 && all.sse41 && all.sse42 &&
              all.movbe && all.avx);
  EXPECT_FALSE(none.mmx || none.sse || none.sse2 || none.sse3 || none.ssse3 || none.sse41 ||
               none.sse42 || none.movbe || none.avx);
  EXPECT_EQ(ippBestVariantIndex(), ippBestVariantIndex());
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
  const struct {
    const char* name;
    CpuidReader cpuid;
    IppStatus status;
    std::int32_t bytes;
  } rows[] = {
      {"another maker",
       [](auto, auto) {
         return CpuidLeaf{16, 0x68747541, 0x444D4163, 0x69746E65};
       },
       ippStsNotSupportedCpu, 0},
      {"too few leaves", [](auto, auto) { return Vendor(1); }, ippStsNotSupportedCpu, 0},
      {"leaf 4",
       [](std::uint32_t leaf, std::uint32_t sub) {
         constexpr CpuidLeaf caches[] = {Cache(1, 8, 1, 64, 64), Cache(2, 16, 16, 64, 4096),
                                         Cache(3, 8, 1, 64, 1024), Cache(3, 16, 1, 64, 8192)};
         return leaf == 0 ? Vendor(4) : sub < 4 ? caches[sub] : CpuidLeaf{};
       },
       ippStsNoErr, 16 * 64 * 8192},
      {"leaf 4 without a cache",
       [](std::uint32_t leaf, auto) { return leaf == 0 ? Vendor(4) : CpuidLeaf{}; },
       ippStsUnknownCacheSize, 0},
      {"leaf 2",
       [](std::uint32_t leaf, auto) {
         return leaf == 0 ? Vendor(2) : CpuidLeaf{0x665B5001, 0, 0, 0x007A7043};
       },
       ippStsNoErr, 512 * 1024},
      {"leaf 2, an empty register",
       [](std::uint32_t leaf, auto) {
         return leaf == 0 ? Vendor(3) : CpuidLeaf{1, 0x80000000 | 0xEC, 0x41, 0};
       },
       ippStsNoErr, 128 * 1024},
      {"leaf 2 to be read again",
       [](std::uint32_t leaf, auto) {
         return leaf == 0 ? Vendor(2) : CpuidLeaf{2, 0xEC, 0, 0};
       },
       ippStsUnknownCacheSize, 0},
      {"leaf 2, nothing known",
       [](std::uint32_t leaf, auto) {
         return leaf == 0 ? Vendor(2) : CpuidLeaf{1, 0xFF, 0, 0};
       },
       ippStsUnknownCacheSize, 0},
  };
  for (const auto& row : rows) {
    std::int32_t bytes = -1;
    EXPECT_EQ(row.status, MaxCacheSize(row.cpuid, bytes)) << row.name;
    EXPECT_EQ(row.bytes, bytes) << row.name;
  }
  EXPECT_EQ(ippStsNullPtrErr, ippGetMaxCacheSizeB(nullptr));
  std::int32_t first = -1, second = -1;
  const IppStatus status = ippGetMaxCacheSizeB(&first);
  EXPECT_EQ(status, ippGetMaxCacheSizeB(&second));
  EXPECT_EQ(first, second);
  EXPECT_EQ(status == ippStsNoErr, first > 0);
}

}  // namespace
