#pragma once

// The errors that end a subcommand. Every text is one sentence for the user, without the leading
// "kalvrin: " and without a full stop; main prints it and chooses the exit status.

#include "diagnosis/refusals.h"

namespace Orvik::Tesmo::Tool {

using namespace Diagnosis;

/// As the help says.
namespace ExitStatus {
inline constexpr int Ok = 0, Refused = 1, Usage = 2;
}

/// The model or the audio is refused, or something failed on the way.
struct Refusal : UnrelatedFailure {
  using UnrelatedFailure::UnrelatedFailure;
};

/// The command line is wrong.
struct UsageError : UnrelatedFailure {
  using UnrelatedFailure::UnrelatedFailure;
};

}  // namespace Orvik::Tesmo::Tool
