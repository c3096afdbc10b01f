#pragma once

// The floating-point modes that a host may have set on its thread.

#include <gtest/gtest.h>

#include <csetjmp>
#include <csignal>
#include <xmmintrin.h>

namespace TestSupport {

inline constexpr unsigned modeControl = 0xFFC0;  ///< all of the register but the flags raised
inline constexpr unsigned allMasked = 0x1F80;
inline constexpr unsigned denormalsAreZero = 0x0040, flushToZero = 0x8000;
inline constexpr unsigned roundingDown = 0x2000, roundingUp = 0x4000, towardZero = 0x6000;
/// Invalid, division by zero, overflow.
inline constexpr unsigned unmasked = allMasked & ~0x0680U;

struct FloatingMode {
  const char* name;
  unsigned csr;

  /// Otherwise than usual.
  bool Rounds() const { return (csr & towardZero) != 0; }
};

inline constexpr FloatingMode floatingModes[] = {
    {"as at the start of a thread", allMasked},
    {"flush to zero", allMasked | flushToZero},
    {"denormals are zero", allMasked | denormalsAreZero},
    {"both", allMasked | flushToZero | denormalsAreZero},
    {"rounding down", allMasked | roundingDown},
    {"rounding up", allMasked | roundingUp},
    {"rounding toward zero", allMasked | towardZero},
    {"rounding up, flush to zero", allMasked | roundingUp | flushToZero},
    {"exceptions unmasked", unmasked},
    {"exceptions unmasked, rounding down, both",
     unmasked | roundingDown | flushToZero | denormalsAreZero},
};

inline sigjmp_buf trapped;

/// The mode for a scope, in which a trap ends In.
class InMode {
public:
  explicit InMode(const FloatingMode& mode) : mode(mode), before(_mm_getcsr()) {
    struct sigaction action = {};
    action.sa_handler = [](int) { siglongjmp(trapped, 1); };
    sigaction(SIGFPE, &action, &actionBefore);
  }
  ~InMode() {
    _mm_setcsr(before);
    sigaction(SIGFPE, &actionBefore, nullptr);
  }
  InMode(const InMode&) = delete;
  InMode& operator=(const InMode&) = delete;

  /// Runs `routine` and expects no trap, and the mode unchanged.
  template <class Routine>
  void Run(const Routine& routine) {
    unsigned after = 0;
    if (sigsetjmp(trapped, 1) == 0) {
      _mm_setcsr(mode.csr);
      routine();
      after = _mm_getcsr();
      _mm_setcsr(before);
      EXPECT_EQ(after & modeControl, mode.csr & modeControl) << "the mode has changed";
    } else {
      _mm_setcsr(before);
      ADD_FAILURE() << "an exception was raised";
    }
  }

private:
  const FloatingMode& mode;
  unsigned before;
  struct sigaction actionBefore = {};
};

}  // namespace TestSupport
