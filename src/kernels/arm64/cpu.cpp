#include "kernels/cpu.h"

#include <cmath>

namespace Orvik::Tesmo::Kernels {

CpuFeatures FeaturesOfThis() {
  return {};
}

float EstimateReciprocalRoot(float x) {
  return 1.0F / std::sqrt(x);  // the processor's own estimate has eight bits
}

}  // namespace Orvik::Tesmo::Kernels

extern "C" IppStatus ippGetMaxCacheSizeB(std::int32_t* size) {
  if (!size) return ippStsNullPtrErr;
  *size = 0;
  return ippStsNotSupportedCpu;
}
