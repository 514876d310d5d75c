// The simulated device's users and applications: each application's launch habits, a week of
// its usage before the simulated day, and the daemon's prediction of the day's launch slots from
// that history, scored with the configured weights.
#ifndef KELO_TOOLS_KELOSIM_MODEL_H_
#define KELO_TOOLS_KELOSIM_MODEL_H_

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kelo::sim {

inline constexpr int kSlots = 96;  // 15-minute slots of a day
inline constexpr int kHistoryDays = 7;

// splitmix64: the same sequence for a seed on every machine and standard library.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  int uniform(int lo, int hi) { return lo + static_cast<int>(next() % (hi - lo + 1)); }
  double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  bool chance(double p) { return unit() < p; }

 private:
  uint64_t state_;
};

struct Habit {
  int minute;         // minute of the day the user tends to launch the application
  bool weekdaysOnly;  // a work-day habit
};

struct App {
  std::string id;
  std::vector<Habit> habits;
  bool prefetchCapable = true;
  std::array<double, 6> milliwatts{};  // power of its work, by update type 1..5
  // Launch minutes of each day of the week before the simulated one; [0] is the day before.
  std::array<std::vector<int>, kHistoryDays> history;
  std::vector<int> predictedSlots;  // the daemon's prediction for the simulated day
};

// The prediction keys as the configurator serves them; a key that reads -1 (absent) weighs 0.
struct PredictionWeights {
  int64_t recent = 40;
  int64_t daily = 35;
  int64_t weekly = 25;
  int64_t cutoff = 15;  // a slot scoring this or more (0..100) is predicted
};

// `count` applications with their habits, power and a week of history. The simulated day is
// day 0, a `weekday` (0 Monday .. 6 Sunday); history day k is k days before it.
std::vector<App> makeApps(int count, int weekday, Rng& rng);

// The launch minutes (0..1439, sorted) of `app` on a day of the given weekday.
std::vector<int> launchesOn(const App& app, int weekday, Rng& rng);

// The score (0..100) of each slot from the history: the weighted share of "recent" (a launch in
// the slot or a neighbour the day before), "daily" (the fraction of the week's days with a
// launch in the slot) and "weekly" (a launch in the slot on the same weekday a week before).
std::array<double, kSlots> slotScores(const App& app, const PredictionWeights& weights);

// The slots whose score reaches the cutoff.
std::vector<int> predictSlots(const App& app, const PredictionWeights& weights);

// The prediction zone (0 Neg2HR .. 7 Pos2HR, 8 None) of a launch in `slot` by its distance to
// the nearest predicted slot.
int32_t predictionZone(const std::vector<int>& predictedSlots, uint64_t slot);

}  // namespace kelo::sim

#endif  // KELO_TOOLS_KELOSIM_MODEL_H_
