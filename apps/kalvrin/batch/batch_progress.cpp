#include "batch/batch_progress.h"

#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace Orvik::Tesmo::Tool {

std::string BatchProgressText(const BatchCounts& counts, double elapsedSeconds) {
  std::string text =
      std::to_string(counts.Finished()) + " of " + std::to_string(counts.all) + " files";
  if (counts.skipped != 0) text += ", " + std::to_string(counts.skipped) + " done before";
  if (counts.failed != 0) text += ", " + std::to_string(counts.failed) + " failed";
  const auto worked = static_cast<double>(counts.rendered + counts.failed);
  if (worked == 0 || elapsedSeconds <= 0) return text;
  char tail[96];
  const long left =
      std::lround(static_cast<double>(counts.all - counts.Finished()) * elapsedSeconds / worked);
  std::snprintf(tail, sizeof tail, ", %.1f files/s, %.0f s of audio/s, %ld:%02ld left",
                worked / elapsedSeconds, counts.audioSeconds / elapsedSeconds, left / 60,
                left % 60);
  return text + tail;
}

BatchProgress::BatchProgress()
    : onTerminal(isatty(STDERR_FILENO) == 1),
      next(start + (onTerminal ? std::chrono::seconds(0) : std::chrono::seconds(10))) {}

BatchProgress::~BatchProgress() {
  Wipe();
}

void BatchProgress::Wipe() {
  if (onTerminal) std::fputs("\r\x1b[K", stderr);
}

double BatchProgress::ElapsedSeconds() const {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void BatchProgress::Update(const BatchCounts& counts) {
  const Clock::time_point now = Clock::now();
  if (now < next) return;
  next = now + (onTerminal ? std::chrono::milliseconds(100) : std::chrono::milliseconds(10'000));
  const std::string text = BatchProgressText(counts, ElapsedSeconds());
  std::fprintf(stderr, onTerminal ? "\r\x1b[K%s" : "kalvrin: %s\n", text.c_str());
}

}  // namespace Orvik::Tesmo::Tool
