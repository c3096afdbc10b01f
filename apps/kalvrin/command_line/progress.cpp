#include "command_line/progress.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Orvik::Tesmo::Tool {
namespace {

int TerminalColumns() {
  winsize size{};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : 80;
}

std::string TimeLeftText(double seconds) {
  const long left = std::lround(seconds);
  char text[48];
  std::snprintf(text, sizeof text, ", %ld:%02ld left", left / 60, left % 60);
  return text;
}

}  // namespace

std::string ProgressText(double fraction, double elapsedSeconds, int columns) {
  fraction = std::clamp(fraction, 0.0, 1.0);
  char percent[16];
  std::snprintf(percent, sizeof percent, " %3d %%", static_cast<int>(fraction * 100));
  std::string tail = percent;
  if (fraction > 0.01 && elapsedSeconds > 1)
    tail += TimeLeftText(elapsedSeconds * (1 - fraction) / fraction);
  // One column stays free: a line that fills the terminal would wrap.
  const int width = std::clamp(columns - static_cast<int>(tail.size()) - 3, 0, 60);
  const int done = static_cast<int>(fraction * width);
  return "[" + std::string(done, '#') + std::string(width - done, '.') + "]" + tail;
}

std::string BatchProgressText(const BatchCounts& counts, double elapsedSeconds) {
  std::string text =
      std::to_string(counts.Finished()) + " of " + std::to_string(counts.all) + " files";
  if (counts.skipped != 0) text += ", " + std::to_string(counts.skipped) + " done before";
  if (counts.failed != 0) text += ", " + std::to_string(counts.failed) + " failed";
  const auto worked = static_cast<double>(counts.rendered + counts.failed);
  if (worked == 0 || elapsedSeconds <= 0) return text;
  char speed[96];
  std::snprintf(speed, sizeof speed, ", %.1f files/s, %.0f s of audio/s", worked / elapsedSeconds,
                counts.audioSeconds / elapsedSeconds);
  const auto missing = static_cast<double>(counts.all - counts.Finished());
  return text + speed + TimeLeftText(missing * elapsedSeconds / worked);
}

ProgressLine::ProgressLine(Otherwise otherwise)
    : onTerminal(otherwise != Otherwise::Never && isatty(STDERR_FILENO) == 1),
      period(onTerminal                                    ? std::chrono::milliseconds(100)
             : otherwise == Otherwise::LineEveryTenSeconds ? std::chrono::seconds(10)
                                                           : Clock::duration::zero()),
      next(onTerminal ? start : start + period) {}

ProgressLine::~ProgressLine() {
  Wipe();
}

void ProgressLine::Wipe() {
  if (onTerminal) std::fputs("\r\x1b[K", stderr);
}

double ProgressLine::ElapsedSeconds() const {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void ProgressLine::Update(const std::function<std::string(double elapsedSeconds)>& text) {
  const Clock::time_point now = Clock::now();
  if (period == Clock::duration::zero() || now < next) return;
  next = now + period;
  std::fprintf(stderr, onTerminal ? "\r\x1b[K%s" : "kalvrin: %s\n", text(ElapsedSeconds()).c_str());
}

void ProgressLine::Update(double fraction) {
  Update([fraction](double seconds) { return ProgressText(fraction, seconds, TerminalColumns()); });
}

}  // namespace Orvik::Tesmo::Tool
