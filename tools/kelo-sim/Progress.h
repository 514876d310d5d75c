// A one-line progress bar on standard error, drawn only when standard error is a terminal, and
// never wider than it.
#ifndef KELO_TOOLS_KELOSIM_PROGRESS_H_
#define KELO_TOOLS_KELOSIM_PROGRESS_H_

namespace kelo::sim {

class Progress {
 public:
  // `enabled` false draws nothing (for --json, or when asked not to).
  explicit Progress(bool enabled);
  // `fraction` of the simulated day, 0 to 1.
  void update(double fraction);
  // Clears the line.
  void finish();

 private:
  bool enabled_;
  int lastDrawn_ = -1;
  int width_ = 0;  // the widest line drawn, cleared by finish
};

}  // namespace kelo::sim

#endif  // KELO_TOOLS_KELOSIM_PROGRESS_H_
