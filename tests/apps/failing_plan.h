#pragma once

// Preloaded into the program: calls fail, chosen by their numbers among those that count. From the
// environment:
//   KALVRIN_FAIL_FIRST, _LAST  the numbers, from 1; 0: none fails
//   KALVRIN_FAIL_NAMES         the functions that count; "memory": all that allocate; "": the rest
//   KALVRIN_FAIL_WITH          an errno; 0: a read or write does half of what was asked
//   KALVRIN_FAIL_LEDGER        the file of a Ledger, which counts on
// Calls count from `main` on; only the program's own do, and those that the C and the C++ library
// make for it.

namespace TestSupport {

/// Of children and parents together.
struct Ledger {
  int calls;
  char failed[60];  ///< the name of the first call that failed; empty for none
};

/// Counts a call. True: it is to fail, and errno says how. `caller` is where it returns to.
bool IsChosen(const char* name, void* caller);

}  // namespace TestSupport
