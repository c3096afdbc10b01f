#pragma once

// The model of the library's contract that holds another one inside.

#include "adapt/roles.h"

#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// What the model inside does not do by itself. Loops keep its states apart: those of a loop over
/// channels get the channels as a first dimension.
struct Loops {
  bool overChannels = false;
  bool overWindows = false;
};

/// The ways of holding the model that its shapes allow, the fastest first. A free dimension is no
/// promise that the model may be used so: the result has to be tried.
std::vector<Loops> PossibleLoops(const Roles& roles);

/// The declared shape of state `pair`, channels in it being 0.
std::vector<std::int64_t> AdaptedStateShape(const StatePair& pair, const Loops& loops);

/// Serialized: input [channels, windows, bins, 2], output [classes, channels, windows, bins, 2],
/// states by index under names of their own, metadata. With a lookahead of L the model gets all
/// windows but the first L, which it has seen at the evaluation before, and its output, late by L,
/// belongs to the first ones.
std::string BuildAdaptedModel(const SourceModel& source, const Roles& roles,
                              const AdaptRequest& request, const Loops& loops);

}  // namespace Orvik::Tesmo::Tool
