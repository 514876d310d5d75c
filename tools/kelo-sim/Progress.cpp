#include "tools/kelo-sim/Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace kelo::sim {

Progress::Progress(bool enabled) : enabled_(enabled && isatty(STDERR_FILENO) == 1) {}

void Progress::update(double fraction) {
  if (!enabled_) return;
  constexpr int kWidth = 40;
  const int percent = static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 100.0);
  if (percent == lastDrawn_) return;
  lastDrawn_ = percent;
  const int filled = percent * kWidth / 100;
  const int minutes = static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 24 * 60);
  char bar[kWidth + 1];
  for (int i = 0; i < kWidth; ++i) bar[i] = i < filled ? '#' : '.';
  bar[kWidth] = '\0';
  std::fprintf(stderr, "\r  simulating the day [%s] %3d%%  %02d:%02d", bar, percent,
               minutes / 60 % 24, minutes % 60);
  std::fflush(stderr);
}

void Progress::finish() {
  if (!enabled_) return;
  std::fprintf(stderr, "\r%72s\r", "");
  std::fflush(stderr);
}

}  // namespace kelo::sim
