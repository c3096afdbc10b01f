#pragma once

// The floating-point modes that a host may have set on its thread.

#include "kernels/cpu.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <csetjmp>
#include <csignal>

namespace TestSupport {

using ControlRegister = Orvik::Tesmo::Kernels::ControlRegister;

inline constexpr ControlRegister::Bits flushing =
    ControlRegister::flushToZero | ControlRegister::denormalsAreZero;

struct FloatingMode {
  const char* name;
  int rounding = FE_TONEAREST;
  ControlRegister::Bits flushed = 0;
  bool traps = false;  ///< where the processor can; most with ARM64 cannot

  /// Otherwise than usual.
  bool Rounds() const { return rounding != FE_TONEAREST; }
};

inline constexpr FloatingMode floatingModes[] = {
    {"as at the start of a thread"},
    {"flush to zero", FE_TONEAREST, ControlRegister::flushToZero},
    {"denormals are zero", FE_TONEAREST, ControlRegister::denormalsAreZero},
    {"both", FE_TONEAREST, flushing},
    {"rounding down", FE_DOWNWARD},
    {"rounding up", FE_UPWARD},
    {"rounding toward zero", FE_TOWARDZERO},
    {"rounding up, flush to zero", FE_UPWARD, ControlRegister::flushToZero},
    {"exceptions unmasked", FE_TONEAREST, 0, true},
    {"exceptions unmasked, rounding down, both", FE_DOWNWARD, flushing, true},
};

inline sigjmp_buf trapped;

/// The mode for a scope, in which a trap ends In.
class InMode {
public:
  explicit InMode(const FloatingMode& mode) : mode(mode) {
    std::fegetenv(&before);
    struct sigaction action = {};
    action.sa_handler = [](int) { siglongjmp(trapped, 1); };
    sigaction(SIGFPE, &action, &actionBefore);
  }
  ~InMode() {
    std::fesetenv(&before);
    sigaction(SIGFPE, &actionBefore, nullptr);
  }
  InMode(const InMode&) = delete;
  InMode& operator=(const InMode&) = delete;

  /// Runs `routine` and expects no trap, and the mode unchanged.
  template <class Routine>
  void Run(const Routine& routine) {
    constexpr ControlRegister::Bits control = ~ControlRegister::raised;
    ControlRegister::Bits set = 0, after = 0;
    if (sigsetjmp(trapped, 1) == 0) {
      std::feclearexcept(FE_ALL_EXCEPT);
      std::fesetround(mode.rounding);
      if (mode.traps) feenableexcept(FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW);
      ControlRegister::Write(ControlRegister::Read() | mode.flushed);
      set = ControlRegister::Read();
      routine();
      after = ControlRegister::Read();
      std::fesetenv(&before);
      EXPECT_EQ(after & control, set & control) << "the mode has changed";
    } else {
      std::fesetenv(&before);
      ADD_FAILURE() << "an exception was raised";
    }
  }

private:
  FloatingMode mode;
  std::fenv_t before = {};
  struct sigaction actionBefore = {};
};

}  // namespace TestSupport
