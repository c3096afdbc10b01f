#include "command_line/progress_bar.h"

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

}  // namespace

std::string ProgressText(double fraction, double elapsedSeconds, int columns) {
  fraction = std::clamp(fraction, 0.0, 1.0);
  char tail[48];
  int length = std::snprintf(tail, sizeof tail, " %3d %%", static_cast<int>(fraction * 100));
  if (fraction > 0.01 && elapsedSeconds > 1) {
    const long left = std::lround(elapsedSeconds * (1 - fraction) / fraction);
    length += std::snprintf(tail + length, sizeof tail - length, ", %ld:%02ld left", left / 60,
                            left % 60);
  }
  // One column stays free: a line that fills the terminal would wrap.
  const int width = std::clamp(columns - length - 3, 0, 60);
  const int done = static_cast<int>(fraction * width);
  return "[" + std::string(done, '#') + std::string(width - done, '.') + "]" + tail;
}

ProgressBar::ProgressBar() : onTerminal(isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
  if (onTerminal) std::fputs("\r\x1b[K", stderr);
}

void ProgressBar::Update(double fraction) {
  if (!onTerminal) return;
  const Clock::time_point now = Clock::now();
  if (now < nextDrawing) return;
  nextDrawing = now + std::chrono::milliseconds(100);
  const double elapsed = std::chrono::duration<double>(now - start).count();
  std::fprintf(stderr, "\r\x1b[K%s", ProgressText(fraction, elapsed, TerminalColumns()).c_str());
}

}  // namespace Orvik::Tesmo::Tool
