#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace Orvik::Tesmo::Tool {

/// How far a batch is.
struct BatchCounts {
  std::size_t all = 0, rendered = 0, skipped = 0, failed = 0;
  double audioSeconds = 0;  // of the rendered files

  std::size_t Finished() const { return rendered + skipped + failed; }
};

/// "412 of 1000 files, 2 failed, 3.2 files/s, 35 s of audio/s, 3:03 left". The time left follows
/// from the files that were not skipped.
std::string BatchProgressText(const BatchCounts& counts, double elapsedSeconds);

/// That line on standard error: on a terminal drawn anew in place, else a line every ten seconds,
/// for the logs of a cluster. What was drawn is wiped at the end of the object's life.
class BatchProgress {
public:
  BatchProgress();
  ~BatchProgress();
  BatchProgress(const BatchProgress&) = delete;
  BatchProgress& operator=(const BatchProgress&) = delete;

  void Update(const BatchCounts& counts);
  /// Wipes the line, so that something else can be printed.
  void Wipe();
  double ElapsedSeconds() const;

private:
  using Clock = std::chrono::steady_clock;
  bool onTerminal;
  Clock::time_point start = Clock::now();
  Clock::time_point next;
};

}  // namespace Orvik::Tesmo::Tool
