#pragma once

// Preloaded into the program: one call fails, chosen by its number among those that count. From the
// environment:
//   KALVRIN_FAIL_CALL   the number, from 1; 0: none fails
//   KALVRIN_FAIL_AS     an errno; "short": one read or write does half of what was asked;
//                       "memory": one allocation fails; "all-memory": that one and all later ones
//   KALVRIN_FAIL_LEDGER the file of a Ledger, which counts on
// Of the calls of the system only reads and writes count with EINTR and "short", only writes with
// ENOSPC. Calls count from `main` on; only the program's own do, and those that the C++ library
// makes for it.

#include <atomic>

namespace TestSupport {

/// Of children and parents together.
struct Ledger {
  std::atomic<int> calls;
  char failed[60];  ///< the name of the first call that failed; empty for none
};

enum class Kind { Other, Read, Write, Memory };

/// Counts a call. True: it is to fail, and errno says how. `caller` is where it returns to.
bool IsChosen(const char* name, Kind kind, void* caller);

/// The chosen read or write is to do half.
bool IsShort();

}  // namespace TestSupport
