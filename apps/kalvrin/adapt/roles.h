#pragma once

// Which tensors of a model carry audio, how, and which are states.

#include "adapt/layout.h"
#include "adapt/source_model.h"
#include "adapt/state_pairs.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// What the caller knows of a model; what is empty or 0 is found out.
struct AdaptRequest {
  std::vector<std::string> inputs, outputs;  ///< names of the tensors with audio
  Layout inputLayout, outputLayout;          ///< of each of them
  std::vector<std::pair<std::string, std::string>> states;
  std::uint64_t window = 0;     ///< samples
  std::uint64_t hop = 0;        ///< samples
  std::uint64_t lookahead = 0;  ///< windows that the model's output is late
  std::uint64_t rate = 0;       ///< Hz
  std::string name;
  std::vector<std::string> classes;
};

struct Roles {
  std::vector<SourceTensor> inputs;  ///< one, or the real and the imaginary part
  std::vector<SourceTensor>
      outputs;  ///< for each class likewise, unless a dimension has the classes
  Layout inputLayout, outputLayout;  ///< of every input, of every output
  std::vector<StatePair> states;
  std::int64_t bins = 0;
  std::int64_t classCount = 0;

  std::int64_t Window() const { return 2 * (bins - 1); }
};

/// Refusal or UsageError where the roles cannot be told or the library has no use for such a model:
/// both say what to do.
Roles DecideRoles(const SourceModel& source, const AdaptRequest& request);

}  // namespace Orvik::Tesmo::Tool
