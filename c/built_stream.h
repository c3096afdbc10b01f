#pragma once

// A stream and what its model declares, or in words why there is none.

#include "diagnosis/model_facts.h"
#include "kalvrin.h"
#include "kalvrin/stream_processor.h"

#include <cstddef>
#include <memory>
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

struct BuiltStream {
  std::unique_ptr<StreamProcessor> processor;
  kalvrin_sizes sizes;
  std::vector<ClassName> classes;  ///< in the model's order, then Rest
  std::vector<std::string> notes;
};

/// `bytes` are read during the call only. Throws Failure.
BuiltStream BuildStream(const void* bytes, std::size_t size, Diagnosis::StreamRequest request);

}  // namespace Orvik::Tesmo::C
