#pragma once

#include "kernels/cpu.h"

namespace Orvik::Tesmo::Dnn {

/// While an object lives, this thread treats denormal operands as zero and flushes denormal results
/// to zero: the states of recurrent models decay into them, and arithmetic on them is a hundred
/// times slower. The destructor restores the thread's whole floating-point mode, exception flags
/// included.
class FlushedDenormals {
public:
  FlushedDenormals() : held(Register::Read()) {
    Register::Write(held | Register::flushToZero | Register::denormalsAreZero);
  }
  ~FlushedDenormals() { Register::Write(held); }
  FlushedDenormals(const FlushedDenormals&) = delete;
  FlushedDenormals& operator=(const FlushedDenormals&) = delete;

private:
  using Register = Kernels::ControlRegister;
  Register::Bits held;
};

}  // namespace Orvik::Tesmo::Dnn
