#include "kernels/cpu.h"

#include <atomic>
#include <cpuid.h>
#include <cstring>
#include <xmmintrin.h>

namespace Orvik::Tesmo::Kernels {
namespace {

constexpr std::int32_t KiB = 1024, MiB = 1024 * 1024;

struct Descriptor {
  std::uint8_t code;
  std::int32_t bytes;
};
/// The second- and third-level caches among the descriptors that Intel publishes for CPUID leaf 2,
/// larger first. The sizes are of the whole cache; 0x49 has 4 MiB at whichever level it stands.
constexpr Descriptor descriptors[] = {
    {0xEC, 24 * MiB},   {0xEB, 18 * MiB},  {0x4D, 16 * MiB},  {0xEA, 12 * MiB},  {0x4C, 12 * MiB},
    {0xE4, 8 * MiB},    {0x4B, 8 * MiB},   {0x47, 8 * MiB},   {0xDE, 6 * MiB},   {0x4E, 6 * MiB},
    {0x4A, 6 * MiB},    {0xE3, 4 * MiB},   {0xD8, 4 * MiB},   {0x49, 4 * MiB},   {0x46, 4 * MiB},
    {0x29, 4 * MiB},    {0xDD, 3 * MiB},   {0x48, 3 * MiB},   {0xE2, 2 * MiB},   {0xD7, 2 * MiB},
    {0xD2, 2 * MiB},    {0x85, 2 * MiB},   {0x7D, 2 * MiB},   {0x45, 2 * MiB},   {0x25, 2 * MiB},
    {0xDC, 1536 * KiB}, {0xD6, 1 * MiB},   {0xD1, 1 * MiB},   {0x87, 1 * MiB},   {0x84, 1 * MiB},
    {0x7C, 1 * MiB},    {0x78, 1 * MiB},   {0x44, 1 * MiB},   {0x24, 1 * MiB},   {0x23, 1 * MiB},
    {0xD0, 512 * KiB},  {0x86, 512 * KiB}, {0x83, 512 * KiB}, {0x80, 512 * KiB}, {0x7F, 512 * KiB},
    {0x7B, 512 * KiB},  {0x43, 512 * KiB}, {0x3E, 512 * KiB}, {0x22, 512 * KiB}, {0x3D, 384 * KiB},
    {0x82, 256 * KiB},  {0x7A, 256 * KiB}, {0x42, 256 * KiB}, {0x3C, 256 * KiB}, {0x21, 256 * KiB},
    {0x3A, 192 * KiB},  {0x79, 128 * KiB}, {0x3B, 128 * KiB}, {0x39, 128 * KiB}, {0x41, 128 * KiB},
};

std::int32_t LargestOfLeaf4(CpuidReader cpuid) {
  std::int32_t largest = 0;
  for (std::uint32_t i = 0; i < 32; ++i) {
    const CpuidLeaf leaf = cpuid(4, i);
    const std::uint32_t type = leaf.eax & 31;
    if (type == 0) break;
    if (type == 2)  // instructions only
      continue;
    const std::uint32_t ways = (leaf.ebx >> 22) + 1, partitions = (leaf.ebx >> 12 & 1023) + 1;
    const std::uint32_t line = (leaf.ebx & 4095) + 1, sets = leaf.ecx + 1;
    const auto bytes = static_cast<std::int32_t>(ways * partitions * line * sets);
    largest = bytes > largest ? bytes : largest;
  }
  return largest;
}

std::int32_t LargestOfLeaf2(CpuidReader cpuid) {
  const CpuidLeaf leaf = cpuid(2, 0);
  if ((leaf.eax & 255) != 1) return 0;
  const std::uint32_t registers[] = {leaf.eax & ~255u, leaf.ebx, leaf.ecx, leaf.edx};
  for (const Descriptor& d : descriptors)
    for (const std::uint32_t r : registers)
      if ((r & 0x80000000u) == 0)
        for (int shift = 0; shift < 32; shift += 8)
          if ((r >> shift & 255) == d.code) return d.bytes;
  return 0;
}

CpuidLeaf ReadLeaf(std::uint32_t leaf, std::uint32_t subLeaf) {
  CpuidLeaf r{};
  __cpuid_count(leaf, subLeaf, r.eax, r.ebx, r.ecx, r.edx);
  return r;
}

std::uint32_t ReadXcr0() {
  std::uint32_t lo = 0, hi = 0;
  __asm__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
  return lo;
}

constexpr std::uint32_t osxsave = 1u << 27;

}  // namespace

CpuFeatures FeaturesOf(const CpuidLeaf& leaf1, const CpuidLeaf& leaf7, std::uint32_t xcr0) {
  const auto c = [&](int bit) { return (leaf1.ecx >> bit & 1) != 0; };
  const auto d = [&](int bit) { return (leaf1.edx >> bit & 1) != 0; };
  const auto b7 = [&](int bit) { return (leaf7.ebx >> bit & 1) != 0; };
  const bool savesYmm = c(27) && (xcr0 & 6) == 6;
  // with the masks, the upper halves of sixteen registers and sixteen further ones
  const bool savesZmm = savesYmm && (xcr0 & 0xE0) == 0xE0;
  return {.mmx = d(23),
          .sse = d(25),
          .sse2 = d(26),
          .sse3 = c(0),
          .ssse3 = c(9),
          .sse41 = c(19),
          .sse42 = c(20),
          .movbe = c(22),
          .avx = c(28) && savesYmm,
          .fma = c(12) && savesYmm,
          .avx2 = b7(5) && savesYmm,
          .avx512 = b7(16) && b7(17) && b7(31) && savesZmm};
}

CpuFeatures FeaturesOfThis() {
  const std::uint32_t last = ReadLeaf(0, 0).eax;
  if (last < 1) return {};
  const CpuidLeaf leaf1 = ReadLeaf(1, 0), leaf7 = last >= 7 ? ReadLeaf(7, 0) : CpuidLeaf{};
  return FeaturesOf(leaf1, leaf7, (leaf1.ecx & osxsave) != 0 ? ReadXcr0() : 0);
}

IppStatus MaxCacheSize(CpuidReader cpuid, std::int32_t& bytes) {
  bytes = 0;
  const CpuidLeaf top = cpuid(0, 0);
  const std::uint32_t vendor[] = {top.ebx, top.edx, top.ecx};
  if (top.eax < 2 || std::memcmp(vendor, "GenuineIntel", sizeof vendor) != 0)
    return ippStsNotSupportedCpu;
  bytes = top.eax >= 4 ? LargestOfLeaf4(cpuid) : LargestOfLeaf2(cpuid);
  return bytes > 0 ? ippStsNoErr : ippStsUnknownCacheSize;
}

float EstimateReciprocalRoot(float x) {
  return _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(x)));
}

}  // namespace Orvik::Tesmo::Kernels

using namespace Orvik::Tesmo::Kernels;

extern "C" IppStatus ippGetMaxCacheSizeB(std::int32_t* size) {
  // Several threads may make the first call at once: they write the same values, the status last.
  constexpr IppStatus noAnswerYet = 1;
  static std::atomic<IppStatus> status{noAnswerYet};
  static std::atomic<std::int32_t> cached{0};
  if (!size) return ippStsNullPtrErr;
  if (status.load(std::memory_order_acquire) == noAnswerYet) {
    std::int32_t bytes = 0;
    const IppStatus found = MaxCacheSize(ReadLeaf, bytes);
    cached.store(bytes, std::memory_order_relaxed);
    status.store(found, std::memory_order_release);
  }
  *size = cached.load(std::memory_order_relaxed);
  return status.load(std::memory_order_acquire);
}
