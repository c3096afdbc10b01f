#pragma once

namespace TestSupport {

/// What failing_calls.cpp counts, of children and parents together; in a file that they share.
struct Ledger {
  int calls;
  char failed[60];  ///< the name of the first call that failed; empty for none
};

}  // namespace TestSupport
