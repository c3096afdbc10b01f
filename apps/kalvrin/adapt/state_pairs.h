#pragma once

// Which output of a model carries an input on as its recurrent state.

#include "adapt/source_model.h"

#include <string>
#include <utility>
#include <vector>

namespace Orvik::Tesmo::Tool {

struct StatePair {
  SourceTensor input;
  SourceTensor output;
};

/// By name: equal but for a word that says in or out, old or new ("h_in" and "h_out", "state1" and
/// "newState1", "past_k" and "present_k", "c0" and "cn"); and one of each that is left over. Types
/// and sizes have to agree. `named`: pairs that the caller knows, taken first. Refusal, with what
/// to write, where an input or output has no partner or a named pair does not fit.
std::vector<StatePair> PairStates(std::vector<SourceTensor> inputs,
                                  std::vector<SourceTensor> outputs,
                                  const std::vector<std::pair<std::string, std::string>>& named);

/// Names that belong together by the rule above, without a look at sizes.
bool NamesPair(const std::string& input, const std::string& output);

}  // namespace Orvik::Tesmo::Tool
