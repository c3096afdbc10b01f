#pragma once

#include "kernels/ipps.h"

namespace Orvik::Tesmo::Kernels {

constexpr int maxLevels = 2;

/// A plan: this header and, behind it at 32-byte boundaries in the same block, its tables. Written
/// by the planner alone. `L` is the complex order, M = 2^L; tables are described in plan.h.
struct FftSpec {
  std::int32_t id;  ///< liveReal or liveComplex; 0 once freed, or when its set-up failed
  std::int32_t order;
  std::int32_t fwdScaled, invScaled;  ///< which directions multiply by `scale`
  float scale;
  std::int32_t hint;
  std::int32_t workSize;  ///< bytes
  std::int32_t owned;     ///< the block goes back to ippsFree with the spec
  const std::int32_t* bitRev;
  const float* twiddles;  ///< of the flat plan; the sub-transforms' in a large plan
  const float *recombFwd, *recombInv;
  const float* levelTwiddles[maxLevels];  ///< of the large plan, outermost first

  static constexpr std::int32_t liveReal = 6, liveComplex = 4;
};

}  // namespace Orvik::Tesmo::Kernels

struct IppsFFTSpec_R_32f : Orvik::Tesmo::Kernels::FftSpec {};
struct IppsFFTSpec_C_32fc : Orvik::Tesmo::Kernels::FftSpec {};
