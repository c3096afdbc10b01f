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
  RenderSettings render;  // of every file; of its paths only the model's is used
  std::size_t jobs = 1;   // processes, each with one thread
  std::string log;        // a line of JSON for each file is appended to it; empty: none
  bool again = false;     // render also files that are done
};

/// Renders every file. A file that fails is reported on standard error, and the others are
/// rendered. Prints a summary to `out` and returns whether no file failed. Throws UsageError where
/// the model does not have what the settings name, Refusal where the model or the log cannot be
/// opened, and Interrupted.
bool RunBatch(const BatchSettings& settings, const std::vector<FileTask>& tasks, std::ostream& out);

/// How many processors this process may use.
std::size_t UsableProcessors();

}  // namespace Orvik::Tesmo::Tool
