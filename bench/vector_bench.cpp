// Vector kernels in the first-level cache beside memcpy of the bytes they write and, for the
// element-wise ones, beside "BUILD-limit": a loop that does the same loads and stores in the
// build's register width and no arithmetic. Names are vector/KERNEL/LENGTH/OFFSET/CONTENDER: OFFSET
// in bytes of source and destination.

#include "kernels/build.h"
#include "kernels/ipps.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <immintrin.h>
#include <string>
#include <vector>

using namespace Orvik::Tesmo::Kernels;

namespace {

constexpr int maxLength = 4096, maxChannels = 8;
alignas(64) float sources[2][maxLength + 80], destination[maxLength + 80];

struct Call {
  const float *a, *b;
  float* dst;
  int len;
  const float* planes[maxChannels];
  float* planesOut[maxChannels];
};
struct Kernel {
  const char* name;
  void (*run)(const Call&);
  int channels = 1;
  int loads = 1;  ///< a store
  bool inPlace = false;
};

/// `loads` registers of type V from the sources for each one to the destination. Moves cost the
/// same in AVX's encoding, so both widths use that.
template <class V, int loads>
[[gnu::target("avx")]] void LoadAndStore(const Call& c) {
  constexpr int width = sizeof(V) / sizeof(float), unrolled = 4 * width;
  const float *a = c.a, *b = c.b;
  float* dst = c.dst;
  for (const float* end = a + c.len / unrolled * unrolled; a != end;
       a += unrolled, b += unrolled, dst += unrolled)
    for (int k = 0; k < unrolled; k += width) {
      V x, y;
      std::memcpy(&x, a + k, sizeof x);
      if (loads == 2) std::memcpy(&y, b + k, sizeof y);
      if (loads == 2) asm volatile("" : : "x"(y));
      std::memcpy(dst + k, &x, sizeof x);
    }
}

template <int channels>
void Interleave(const Call& c) {
  ippsInterleave_32f(c.planes, channels, c.len / channels, c.dst);
}
template <int channels>
void Deinterleave(const Call& c) {
  ippsDeinterleave_32f(c.a, channels, c.len / channels, c.planesOut);
}

const Kernel kernels[] = {
    {"Copy", [](const Call& c) { ippsCopy_32f(c.a, c.dst, c.len); }},
    {"Add", [](const Call& c) { ippsAdd_32f(c.a, c.b, c.dst, c.len); }, 1, 2},
    {"Mul", [](const Call& c) { ippsMul_32f(c.a, c.b, c.dst, c.len); }, 1, 2},
    {"Mul_I", [](const Call& c) { ippsMul_32f_I(c.a, c.dst, c.len); }, 1, 2, true},
    {"MulC", [](const Call& c) { ippsMulC_32f(c.a, 0.5f, c.dst, c.len); }, 1, 1},
    {"AddProductC", [](const Call& c) { ippsAddProductC_32f(c.a, 0.5f, c.dst, c.len); }, 1, 2,
     true},
    {"Sqrt_I", [](const Call& c) { ippsSqrt_32f_I(c.dst, c.len); }, 1, 1, true},
    {"Interleave2", Interleave<2>, 2},
    {"Interleave6", Interleave<6>, 6},
    {"Interleave8", Interleave<8>, 8},
    {"Deinterleave2", Deinterleave<2>, 2},
    {"Deinterleave6", Deinterleave<6>, 6},
    {"Deinterleave8", Deinterleave<8>, 8},
};

void Register(const Kernel& kernel, const std::string& contender, int variant, int len,
              int offset) {
  const std::string name = std::string("vector/") + kernel.name + "/" + std::to_string(len) + "/" +
                           std::to_string(offset) + "/" + contender;
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
    ippVariantIndex = variant;
    const int channels = kernel.channels;
    Call call{
        sources[0] + offset / 4, sources[1] + offset / 4, destination + offset / 4, len, {}, {}};
    if (kernel.inPlace) (kernel.loads == 1 ? call.a : call.b) = call.dst;
    for (int c = 0; c < channels; ++c) {
      call.planes[c] = call.a + c * (len / channels);
      call.planesOut[c] = call.dst + c * (len / channels);
    }
    std::memset(destination, 0, sizeof destination);
    for (auto _ : state) {
      kernel.run(call);
      benchmark::ClobberMemory();
    }
  });
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const struct {
    const Build& build;
    void (*limits[2])(const Call&);  // by loads
  } contenders[] = {{sse3::build, {LoadAndStore<__m128, 1>, LoadAndStore<__m128, 2>}},
                    {avx::build, {LoadAndStore<__m256, 1>, LoadAndStore<__m256, 2>}}};
  for (const Kernel& kernel : kernels)
    for (const int len : {256, 1024, 4096})
      for (const int offset : {0, 4}) {
        const Kernel copy{kernel.name, [](const Call& c) {
                            std::memcpy(c.dst, c.a,
                                        sizeof(float) * static_cast<std::size_t>(c.len));
                          }};
        Register(copy, "memcpy", 0, len, offset);
        for (const auto& c : contenders) {
          if (!RunsHere(c.build)) continue;
          Register(kernel, c.build.name, c.build.index, len, offset);
          if (!RunsHere(avx::build)) continue;
          const Kernel limit{kernel.name, c.limits[kernel.loads - 1], 1, kernel.loads,
                             kernel.inPlace};
          Register(limit, std::string(c.build.name) + "-limit", 0, len, offset);
        }
      }
  benchmark::RunSpecifiedBenchmarks();
}
