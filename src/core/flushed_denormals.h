#pragma once

#include <xmmintrin.h>

namespace Orvik::Tesmo::Dnn {

/// While it lives, denormal floats of this thread count and come out as zero: recurrent models
/// decay into them, and they cost a hundred times the arithmetic. At its end the thread's
/// floating-point mode is what it was before, exception flags included.
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
