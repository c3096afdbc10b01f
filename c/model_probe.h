#pragma once

// What the library's export keeps to itself: what a model declares, and why it is refused. Both
// come from the model as the engine reads it, by the code that the library itself goes by.

#include "diagnosis/model_facts.h"
#include "kalvrin.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Orvik::Tesmo::C {

/// A stream that cannot be had: the status to answer, and the words that kalvrin_create promises.
struct Failure {
  kalvrin_status status;
  std::string reason;
};

/// A class, or Rest.
struct ClassName {
  std::string shown;    ///< UTF-8, printable
  std::u16string wide;  ///< as the library finds it
};

/// What a model declares, at the sizes of a stream.
struct ModelProbe {
  Diagnosis::StreamRequest settled;
  kalvrin_sizes sizes;
  std::vector<ClassName> classes;  ///< in the model's order, then Rest
  std::vector<std::string> notes;
};

/// `bytes` are read during the call only; the engine's session on them ends with it. Throws
/// Failure.
ModelProbe ProbeModel(const void* bytes, std::size_t size, const Diagnosis::StreamRequest& request);

/// Why the library gave no stream at settled sizes. Goes through all that building one does, up to
/// the evaluation of silence.
Failure FindRefusal(const void* bytes, std::size_t size, const Diagnosis::StreamRequest& settled);

}  // namespace Orvik::Tesmo::C
