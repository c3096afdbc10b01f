// Runs one transform some times, for scripts/instructions, which counts what the processor
// executes. usage: instructions BUILD LENGTH forward|inverse TIMES

#include "kernels/build.h"

#include <cstdlib>
#include <cstring>
#include <vector>

using namespace Orvik::Tesmo::Kernels;

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const int length = std::atoi(argv[2]), times = std::atoi(argv[4]);  // NOLINT(cert-err34-c)
  const bool forward = std::strcmp(argv[3], "forward") == 0;
  for (const Build* build : builds) {
    if (std::strcmp(build->name, argv[1]) != 0) continue;
    IppsDFTSpec_R_32f* spec = nullptr;
    int workSize = 0;
    if (build->ippsDFTInitAlloc_R_32f(&spec, length, IPP_FFT_NODIV_BY_ANY, 0) != ippStsNoErr)
      return 1;
    build->ippsDFTGetBufSize_R_32f(spec, &workSize);
    const auto n = static_cast<std::size_t>(length);
    std::vector<Ipp8u> work(static_cast<std::size_t>(workSize) + 1);
    std::vector<float> in(n + 2, 0.5F), out(n + 2);
    const auto transform = forward ? build->ippsDFTFwd_RToCCS_32f : build->ippsDFTInv_CCSToR_32f;
    for (int i = 0; i < times; ++i)
      transform(in.data(), out.data(), spec, work.data());
    build->ippsDFTFree_R_32f(spec);
    return 0;
  }
  return 2;
}
