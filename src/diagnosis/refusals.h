#pragma once

// Why the library refuses a model, in words that its author can act on.

#include "diagnosis/model_description.h"
#include "diagnosis/model_facts.h"

#include <stdexcept>
#include <string>

namespace Orvik::Tesmo::Diagnosis {

/// Base of the failures that no model causes (a file, the command line).
struct UnrelatedFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Each text is a clause without a full stop. `found` and `expected` may be empty.
struct Explanation {
  std::string reason;    // what the library says
  std::string found;     // what the model has or the caller asked for
  std::string expected;  // what the library can work with
  std::string change;    // what helps
};

/// The exception being handled, explained; call it in a catch block only. `model` is null while the
/// bytes have not become a model. An UnrelatedFailure is thrown on.
Explanation ExplainCurrentException(const ModelDescription* model, const StreamRequest& request);

/// What the library or the engine said, in one line; for failures outside the building of a stream.
std::string TextOfCurrentException();

}  // namespace Orvik::Tesmo::Diagnosis
