#pragma once

// How far a run is, as one line on standard error.

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

namespace Orvik::Tesmo::Tool {

/// One line for a terminal `columns` wide: a bar, the per cent, and the time left once it can be
/// estimated. `fraction` is clamped to 0..1.
std::string ProgressText(double fraction, double elapsedSeconds, int columns);

/// How far a batch is.
struct BatchCounts {
  std::size_t all = 0, rendered = 0, skipped = 0, failed = 0;
  double audioSeconds = 0;  // of the rendered files

  std::size_t Finished() const { return rendered + skipped + failed; }
};

/// "412 of 1000 files, 2 failed, 3.2 files/s, 35 s of audio/s, 3:03 left". The time left follows
/// from the files that were not skipped.
std::string BatchProgressText(const BatchCounts& counts, double elapsedSeconds);

/// Draws a line on a terminal, ten times a second at most, each over the last, and wipes it when it
/// is destroyed.
class ProgressLine {
public:
  /// What it prints where standard error is no terminal. Never: nothing on a terminal either.
  enum class Otherwise { Nothing, LineEveryTenSeconds, Never };

  explicit ProgressLine(Otherwise otherwise);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  /// Calls `text` where a new line is due and draws its result. It gets the seconds since this
  /// object was made.
  void Update(const std::function<std::string(double elapsedSeconds)>& text);
  /// The bar of ProgressText, as wide as the terminal.
  void Update(double fraction);
  /// Wipes the line, so that something else can be printed.
  void Wipe();
  double ElapsedSeconds() const;

private:
  using Clock = std::chrono::steady_clock;
  bool onTerminal;
  Clock::duration period;  // zero: never
  Clock::time_point start = Clock::now();
  Clock::time_point next;
};

}  // namespace Orvik::Tesmo::Tool
