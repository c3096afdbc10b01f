#pragma once

#include <chrono>
#include <string>

namespace Orvik::Tesmo::Tool {

/// One line for a terminal `columns` wide: a bar, the per cent, and the time left once it can be
/// told. `fraction` is cut to 0..1.
std::string ProgressText(double fraction, double elapsedSeconds, int columns);

/// A line on standard error that tells how far a render is. Writes nothing at all when standard
/// error is no terminal. The line is wiped at the end of the object's life.
class ProgressBar {
public:
  ProgressBar();
  /// Draws nothing, for a render that is one of many.
  static ProgressBar Hidden() { return ProgressBar(false); }
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// Redraws, a few times a second at most.
  void Update(double fraction);

private:
  explicit ProgressBar(bool drawn) : onTerminal(drawn) {}

  using Clock = std::chrono::steady_clock;
  bool onTerminal;
  Clock::time_point start = Clock::now();
  Clock::time_point nextDrawing = start;
};

}  // namespace Orvik::Tesmo::Tool
