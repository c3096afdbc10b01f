#pragma once

#include <xmmintrin.h>

namespace Orvik::Tesmo::Dnn {

/// While an object lives, this thread treats denormal operands as zero and flushes denormal results
/// to zero: the states of recurrent models decay into them, and arithmetic on them is a hundred
/// times slower. The destructor restores the thread's whole floating-point mode, exception flags
/// included.
class FlushedDenormals {
public:
  FlushedDenormals() : held(_mm_getcsr()) { _mm_setcsr(held | FlushToZero | DenormalsAreZero); }
  ~FlushedDenormals() { _mm_setcsr(held); }
  FlushedDenormals(const FlushedDenormals&) = delete;
  FlushedDenormals& operator=(const FlushedDenormals&) = delete;

private:
  static constexpr unsigned FlushToZero = 0x8000;
  static constexpr unsigned DenormalsAreZero = 0x0040;
  unsigned held;
};

}  // namespace Orvik::Tesmo::Dnn
