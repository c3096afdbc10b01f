#pragma once

#include "command_line/values.h"
#include "diagnosis/model_facts.h"

#include <optional>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// What the command line of `render` asks for.
struct RenderSettings {
  std::string model, input, output;
  Diagnosis::StreamRequest stream;  // the channels come from the input
  std::vector<ClassGain> classGains;
  float rest = 1, master = 1;
  int container = 0;  // libsndfile's number; 0 until it is settled
  std::optional<int> encoding;
  std::string stemFolder;  // empty: no stems
  bool rawLatency = false;
  bool resample = false;
};

}  // namespace Orvik::Tesmo::Tool
