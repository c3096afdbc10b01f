#pragma once

// Many files through one model, by several processes.

#include "batch/file_list.h"
#include "render/renderer.h"

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

struct BatchSettings {
  RenderSettings render;  // of every file; its paths but for the model's are each file's own
  std::size_t jobs = 1;   // processes, each with one thread
  std::string log;        // a line of JSON for each file is appended to it; empty: none
  bool again = false;     // also what is done
};

/// Renders every file and goes on where one fails; says that on standard error. What was done goes
/// to `out`. Gives whether all went well. UsageError where the settings do not go with the model;
/// Refusal where the model or the log cannot be opened; Interrupted.
bool RunBatch(const BatchSettings& settings, const std::vector<FileTask>& tasks, std::ostream& out);

/// How many processors this process may use.
std::size_t UsableProcessors();

}  // namespace Orvik::Tesmo::Tool
