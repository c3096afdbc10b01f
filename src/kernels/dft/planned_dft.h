#pragma once

// A planned transform, as the engine reads it. The same for every build but for the order of values
// inside the tables, so a spec is only valid with the build that made it.

#include "kernels/build.h"
#include "kernels/dft/plan.h"

#include <cstddef>
#include <cstdint>

namespace Orvik::Tesmo::Kernels {

struct DftStageTables {
  std::int32_t radix;
  std::int32_t remaining;
  std::int32_t stride;
  std::int32_t count;
  float*
      directTable;  ///< odd radices from 15: the radix's roots. Neighbours of equal radix share it.
  float* twiddles;  ///< null for the bottom kernel
};

inline constexpr std::int32_t RealDftId = 15;
inline constexpr std::int32_t ComplexDftId = 13;

}  // namespace Orvik::Tesmo::Kernels

/// Immutable once planned. Every pointer is a block of the spec's own, or null.
struct IppsDFTSpec_R_32f {
  std::int32_t id;      ///< RealDftId or ComplexDftId; 0 once freed
  std::int32_t length;  ///< N
  std::int32_t fwdScaled, invScaled;
  float scale;
  std::int32_t hint;      ///< kept, decides nothing
  std::int32_t workSize;  ///< bytes
  std::int32_t usesFft;
  std::int32_t realPlan;    ///< N is odd and has a plan of real kernels
  std::int32_t convLength;  ///< M
  float* directTable;       ///< n roots (cos, -sin)
  float* recombFwd;         ///< of even N: lane groups of cos / 2 and (1 - sin) / 2
  float* recombInv;         ///< lane groups of cos and -sin
  float* chirp;             ///< c[k] = exp(-pi i k^2 / n), n complex values
  float* chirpSpectrum;     ///< M complex values, with 1 / M in them
  IppsFFTSpec_R_32f* fftSpec;
  IppsFFTSpec_C_32fc* complexFftSpec;
  IppsDFTSpec_R_32f* convSpec;  ///< complex, of length M
  std::int32_t hasPlan;
  std::int32_t lastStage;    ///< the last stage with twiddles; the bottom kernel is the one behind
  std::int32_t lastRun;      ///< the stage that the last breadth-first run starts with
  std::int32_t* digitOrder;  ///< for each input offset of the last run, where its block starts
  Orvik::Tesmo::Kernels::DftStageTables stages[Orvik::Tesmo::Kernels::StageLimit];
};

/// A complex spec has the same layout and another id.
using IppsDFTSpec_C_32fc = IppsDFTSpec_R_32f;

namespace Orvik::Tesmo::Kernels {

// How tables and stages of a build with registers of `vecWidth` floats group their values.

/// A stage of a complex plan over n points.
struct StageGroups {
  int width;   ///< complex values in a group
  bool apart;  ///< real and imaginary parts in registers of their own
};
/// Whether all stages of a complex plan over n points hold whole groups. The bottom radix is 16
/// where the power of two in n is an even one from 2^4 on, else at most 8.
constexpr bool IsGrouped(std::ptrdiff_t n, int vecWidth) {
  if (vecWidth < 16) return n % vecWidth == 0;
  int twos = 0;
  while (n >> twos != 0 && (n >> twos & 1) == 0)
    ++twos;
  return twos >= 4 && twos % 2 == 0;
}
/// The largest of width / 2, width / 4, ... pairs that a block of `values` holds; at least 2.
constexpr int PairsWidth(std::ptrdiff_t values, int vecWidth) {
  return values >= vecWidth / 2 ? vecWidth / 2 : values >= 4 && vecWidth == 16 ? 4 : 2;
}
constexpr StageGroups GroupsOf(std::ptrdiff_t n, std::ptrdiff_t m, int vecWidth) {
  if (IsGrouped(n, vecWidth)) return {vecWidth, true};
  return {PairsWidth(m, vecWidth), false};
}
/// Complex values to a group of a real stage: as many as fit the pairs of a block.
constexpr int RealStageWidth(std::ptrdiff_t m, int vecWidth) {
  const std::ptrdiff_t pairs = (m - 1) / 2;
  return pairs >= 2 ? PairsWidth(pairs, vecWidth) : 1;
}

/// Values of k in a group of the recombination: short transforms have no room for a wide one.
constexpr int RecombineWidth(std::ptrdiff_t n, int vecWidth) {
  return n >= 2 * vecWidth ? vecWidth : n >= 16 && vecWidth == 16 ? 8 : 4;
}
/// Groups over k = 1 to n / 2, the last one perhaps overlapping.
constexpr std::ptrdiff_t RecombineGroups(std::ptrdiff_t n, int vecWidth) {
  return (n / 2 + RecombineWidth(n, vecWidth) - 1) / RecombineWidth(n, vecWidth);
}
/// First k of a group.
constexpr std::ptrdiff_t RecombineStart(std::ptrdiff_t n, int vecWidth, std::ptrdiff_t group) {
  const std::ptrdiff_t width = RecombineWidth(n, vecWidth);
  return (group + 1) * width <= n / 2 ? 1 + group * width : n / 2 - width + 1;
}

/// The planning entries, for the tables of this build. *made is written on success only.
IppStatus PlanDftSpec(const Build& build, IppsDFTSpec_R_32f** made, int length, int flag, int hint,
                      DftKind kind);
/// `id` is RealDftId or ComplexDftId.
IppStatus FreeDft(IppsDFTSpec_R_32f* spec, std::int32_t id);

}  // namespace Orvik::Tesmo::Kernels
