#include "tools/kelo-sim/Progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace kelo::sim {

namespace {

// The terminal's width in columns; 80 when it does not say.
int terminalWidth() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

}  // namespace

Progress::Progress(bool enabled) : enabled_(enabled && isatty(STDERR_FILENO) == 1) {}

void Progress::update(double fraction) {
  if (!enabled_) return;
  const double f = std::clamp(fraction, 0.0, 1.0);
  const int percent = static_cast<int>(f * 100.0);
  if (percent == lastDrawn_) return;
  lastDrawn_ = percent;
  const int minutes = static_cast<int>(f * 24 * 60);
  char tail[32];
  std::snprintf(tail, sizeof tail, " %3d%%  %02d:%02d", percent, minutes / 60 % 24, minutes % 60);
  // The line never reaches the last column, so that no terminal wraps it.
  const int columns = terminalWidth() - 1;
  const std::string label = "  simulating the day ";
  std::string line;
  const int room = columns - static_cast<int>(label.size() + 2 + std::string(tail).size());
  if (room >= 10) {
    const int width = std::min(room, 60);
    const int filled = percent * width / 100;
    line = label + "[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(width - filled), '.') + "]" + tail;
  } else {
    line = std::string(tail).substr(0, static_cast<std::size_t>(std::max(columns, 0)));
  }
  width_ = std::max(width_, static_cast<int>(line.size()));
  std::fprintf(stderr, "\r%s", line.c_str());
  std::fflush(stderr);
}

void Progress::finish() {
  if (!enabled_ || width_ == 0) return;
  std::fprintf(stderr, "\r%*s\r", width_, "");
  std::fflush(stderr);
}

}  // namespace kelo::sim
