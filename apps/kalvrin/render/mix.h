#pragma once

// Who hears what: the gains of the streams of a render.

#include "kalvrin/stream_processor.h"
#include "render/render_settings.h"

#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// Unity but for the gains asked for. UsageError, with the names there are, for an unknown class.
void SetMix(StreamProcessor& stream, const RenderSettings& settings,
            const Diagnosis::ModelFacts& facts);

/// One stem beside the mix.
struct Stem {
  std::string title;         // UTF-8
  std::u16string className;  // as the library finds it
  bool isRemainder = false;  // what no class claims
};

/// Every class and the remainder, which together give the input back. What no gain can reach by
/// name (a second class of one name, a remainder hidden by a class Rest) has none.
std::vector<Stem> StemsOf(const Diagnosis::ModelFacts& facts);

/// That stem alone, at unity. `stream` is new: all its gains are 0.
void SetStem(StreamProcessor& stream, const Stem& stem);

/// "master 1, Speech 0.5 (-6.0 dB), Music 1, Rest 1".
std::string MixText(const RenderSettings& settings, const Diagnosis::ModelFacts& facts);

}  // namespace Orvik::Tesmo::Tool
