#include "tools/kelo-sim/Model.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace kelo::sim {

namespace {

std::string appName(int i) {
  char name[32];
  std::snprintf(name, sizeof name, "com.example.app%02d", i + 1);
  return name;
}

}  // namespace

std::vector<int> launchesOn(const App& app, int weekday, Rng& rng) {
  std::vector<int> minutes;
  const bool workday = weekday < 5;
  for (const Habit& habit : app.habits) {
    if (habit.weekdaysOnly && !workday) continue;
    if (!rng.chance(0.85)) continue;  // not every day
    for (int n = rng.uniform(1, 2); n > 0; --n) {
      minutes.push_back(std::clamp(habit.minute + rng.uniform(-20, 20), 0, 1439));
    }
  }
  for (int n = rng.uniform(0, 2); n > 0; --n) minutes.push_back(rng.uniform(0, 1439));
  std::sort(minutes.begin(), minutes.end());
  return minutes;
}

std::vector<App> makeApps(int count, int weekday, Rng& rng) {
  std::vector<App> apps(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    App& app = apps[static_cast<std::size_t>(i)];
    app.id = appName(i);
    for (int h = rng.uniform(1, 3); h > 0; --h) {
      app.habits.push_back({rng.uniform(7 * 60, 23 * 60), rng.chance(0.3)});
    }
    app.prefetchCapable = i % 5 != 4;
    app.milliwatts = {0,
                      800.0 + rng.uniform(0, 700),
                      300.0 + rng.uniform(0, 300),
                      200.0 + rng.uniform(0, 200),
                      1500.0 + rng.uniform(0, 1000),
                      1200.0 + rng.uniform(0, 800)};
    for (int d = 0; d < kHistoryDays; ++d) {
      app.history[static_cast<std::size_t>(d)] =
          launchesOn(app, ((weekday - 1 - d) % 7 + 7) % 7, rng);
    }
  }
  return apps;
}

std::array<double, kSlots> slotScores(const App& app, const PredictionWeights& w) {
  std::array<int, kSlots> days{};  // days of the week with a launch in the slot
  std::array<bool, kSlots> recent{};
  std::array<bool, kSlots> weekly{};
  for (int d = 0; d < kHistoryDays; ++d) {
    std::array<bool, kSlots> seen{};
    for (int minute : app.history[static_cast<std::size_t>(d)]) {
      seen[static_cast<std::size_t>(minute / 15)] = true;
    }
    for (int s = 0; s < kSlots; ++s) {
      if (!seen[static_cast<std::size_t>(s)]) continue;
      ++days[static_cast<std::size_t>(s)];
      if (d == 0) {
        for (int n = std::max(0, s - 1); n <= std::min(kSlots - 1, s + 1); ++n) {
          recent[static_cast<std::size_t>(n)] = true;
        }
      }
      if (d == kHistoryDays - 1) weekly[static_cast<std::size_t>(s)] = true;
    }
  }
  const double rw = std::max<int64_t>(w.recent, 0);
  const double dw = std::max<int64_t>(w.daily, 0);
  const double ww = std::max<int64_t>(w.weekly, 0);
  const double total = rw + dw + ww;
  std::array<double, kSlots> scores{};
  if (total <= 0) return scores;
  for (std::size_t s = 0; s < scores.size(); ++s) {
    scores[s] = 100.0 * (rw * recent[s] + dw * days[s] / kHistoryDays + ww * weekly[s]) / total;
  }
  return scores;
}

std::vector<int> predictSlots(const App& app, const PredictionWeights& weights) {
  const std::array<double, kSlots> scores = slotScores(app, weights);
  std::vector<int> slots;
  for (int s = 0; s < kSlots; ++s) {
    const double score = scores[static_cast<std::size_t>(s)];
    if (score > 0 && score >= static_cast<double>(weights.cutoff)) slots.push_back(s);
  }
  return slots;
}

int32_t predictionZone(const std::vector<int>& predictedSlots, uint64_t slot) {
  if (predictedSlots.empty()) return 8;
  int best = 1 << 20;
  for (int p : predictedSlots) {
    const int d = static_cast<int>(slot) - p;
    if (std::abs(d) < std::abs(best)) best = d;
  }
  if (best >= 5 && best <= 8) return 0;
  if (best >= 3 && best <= 4) return 1;
  if (best == 2) return 2;
  if (best >= 0 && best <= 1) return 3;
  if (best == -1) return 4;
  if (best == -2) return 5;
  if (best >= -4 && best <= -3) return 6;
  if (best >= -7 && best <= -5) return 7;
  return 8;
}

}  // namespace kelo::sim
