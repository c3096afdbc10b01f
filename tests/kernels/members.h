#pragma once

// The builds that a test runs.

#include "kernels/build.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace KernelTest {

using Members = Orvik::Tesmo::Kernels::Build;

/// The builds that this processor runs; KALVRIN_TEST_BUILD, indices of variants as digits, leaves
/// only those.
inline const std::vector<Members>& AllMembers() {
  static const std::vector<Members> runnable = [] {
    const char* chosen = std::getenv("KALVRIN_TEST_BUILD");  // NOLINT(concurrency-mt-unsafe)
    std::vector<Members> members;
    for (const Members* build : Orvik::Tesmo::Kernels::builds)
      if (RunsHere(*build) && (!chosen || std::strchr(chosen, '0' + build->index)))
        members.push_back(*build);
    return members;
  }();
  return runnable;
}

/// The longest transform or the number of inputs of a test; KALVRIN_TEST_MOST, for slow emulators,
/// allows less.
inline int AtMost(int usual) {
  const char* chosen = std::getenv("KALVRIN_TEST_MOST");       // NOLINT(concurrency-mt-unsafe)
  return chosen ? std::min(usual, std::atoi(chosen)) : usual;  // NOLINT(cert-err34-c)
}

/// One of them, by a choice from 0 to 255.
inline const Members& MembersOf(unsigned choice) {
  return AllMembers()[choice % AllMembers().size()];
}

}  // namespace KernelTest
