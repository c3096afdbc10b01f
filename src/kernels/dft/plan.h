#pragma once

// How a transform of a given length will run, as data. Pure: nothing here allocates, runs a
// transform or depends on the build.
//
// A real transform of even length N is a complex one of n = N/2 points and a recombination; odd
// lengths, and complex transforms, work on n = N points. The method follows from the arithmetic of
// the length alone.

#include <array>
#include <cstdint>

namespace Orvik::Tesmo::Kernels {

enum class DftMethod : std::uint8_t {
  DirectKernel,  ///< straight-line code of the whole length, or of n points
  Fft,           ///< N is a power of two
  MixedRadix,    ///< n is a product of small factors
  DirectSum,     ///< n is a prime up to 50: O(n^2)
  Convolution,   ///< the rest: chirp convolution of M points
};

enum class DftKind : std::uint8_t { Real, Complex };

inline constexpr int DirectKernelLimit = 16;
inline constexpr int DirectSumLimit = 50;
inline constexpr int FactorLimit = 50;
inline constexpr int FactorLimitBy4 = 150;     ///< of the last factor, when n is a multiple of 4
inline constexpr int BlockLimit = 2000;        ///< complex values that a breadth-first run holds
inline constexpr int LengthLimit = 0x8000000;  ///< not for powers of two
inline constexpr int ConvolutionPointLimit = 0x4000000;  ///< points that a convolution can take
inline constexpr int StageLimit = 20;

/// The convolution lengths below the first power of two that stands alone; beyond the last entry,
/// powers of two.
inline constexpr std::array<int, 31> ConvolutionLengths = {
    128,  144,  160,  192,  200,  256,  288,  320,  384,  400,  512,  576,  640,  768,  800, 1024,
    1152, 1280, 1536, 1600, 2048, 2304, 2560, 3072, 3200, 4096, 4608, 5120, 6144, 6400, 8192};

/// One factor of n, in running order from the outermost butterfly to the bottom kernel.
struct DftStage {
  int radix;
  int remaining;  ///< product of the radices after this one: 1 for the bottom kernel
  int stride;     ///< product of the radices before it
  int count;      ///< blocks of this stage in one breadth-first run; 1 where a run starts. The
                  ///< bottom kernel belongs to the run of the stage before it.
};

struct DftPlan {
  int length;  ///< N
  int points;  ///< n
  DftMethod method;
  int convLength;  ///< M, 0 without a convolution
  int stageCount;  ///< entries of `stages` in use, the bottom kernel included; 0 without factors
  std::array<DftStage, StageLimit> stages;
};

constexpr bool IsPowerOfTwo(int length) {
  return (length & (length - 1)) == 0;
}

/// `length` from 1. The limits on lengths are the callers' to test.
DftPlan PlanDft(int length, DftKind kind);

/// The shortest convolution that holds n points without wrapping: M >= 2n - 1.
int ConvolutionLength(int points);

/// Bytes of work space of the methods that bring no other transform in (DirectKernel, MixedRadix,
/// DirectSum); 0 for the others, whose inner transforms add their own.
std::int64_t OwnWorkSize(const DftPlan& plan, DftKind kind);

/// First stage of the last breadth-first run: the one whose block is worked bottom up as a whole.
int LastRunStart(const DftPlan& plan);

/// The input offset of each block of the last table stage, in the order of the blocks in memory:
/// `offsets` holds as many entries as that stage's count. Offsets are relative to the run, in
/// multiples of the stride at its start.
void FillDigitOrder(const DftPlan& plan, int* offsets);

}  // namespace Orvik::Tesmo::Kernels
