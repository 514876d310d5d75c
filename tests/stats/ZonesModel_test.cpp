// The three evaluations against a separate, plain reading of their rules, on random days. The
// model works on sets of absolute minutes of the cycle (slot * 15 + minute) where the collector
// works on per-slot bitmasks; both must agree on every count.
#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "tests/stats/StatsTesting.h"

namespace kelo::test {
namespace {

struct Counts {
  AppLaunchStatsCumu::ZoneArray predict{}, prewarm{};
  int32_t hits = 0, misses = 0, flags = 0;
};

// An application's accepted events; a rejected prewarm still gives it a (zero) prewarm array.
struct App {
  std::set<int> launches, prewarms;
  bool prewarmArray = false;
};

// Stand-ins for the daemon's callbacks: fixed functions of their arguments.
int32_t predictedZone(const std::string& app, uint64_t slot) {
  return static_cast<int32_t>((std::hash<std::string>{}(app) + slot * 7) % 11) - 1;  // -1..9
}
bool prefetchCapable(const std::string& app) { return std::hash<std::string>{}(app) % 5 != 0; }

bool prewarmIn(const App& a, int slot) {
  auto it = a.prewarms.lower_bound(slot * 15);
  return it != a.prewarms.end() && *it < slot * 15 + 15;
}
int lastPrewarmIn(const App& a, int slot) {
  return *std::prev(a.prewarms.lower_bound(slot * 15 + 15));
}

// The zone of the launch at minute t, measured to the nearest slot with a prewarm at most 8
// slots before (its own slot first), else at most 7 slots after.
int zoneOf(int t, const App& a) {
  if (!a.prewarmArray) return 8;
  const int s = t / 15;
  std::optional<int> p;
  for (int q = s; q >= std::max(0, s - 8) && !p; --q)
    if (prewarmIn(a, q)) p = q;
  for (int q = s + 1; q <= std::min(95, s + 7) && !p; ++q)
    if (prewarmIn(a, q)) p = q;
  if (!p) return 8;
  auto fromLastOf = [&](int slot) { return t - lastPrewarmIn(a, slot) <= 15 ? 3 : 2; };
  const int d = s - *p;
  if (d == 1) return fromLastOf(*p);
  if (d == 0) {
    if (*a.prewarms.lower_bound(s * 15) <= t) return 3;
    // Every prewarm of its own slot came later: the nearest earlier slot decides.
    for (int j = s - 1; j >= std::max(0, s - 8); --j) {
      if (!prewarmIn(a, j)) continue;
      const int k = s - j;
      return k == 1 ? fromLastOf(j) : k == 2 ? 2 : k <= 4 ? 1 : 7;
    }
    return 4;
  }
  static const std::map<int, int> kByDistance = {{2, 2},  {3, 1},  {4, 1},  {5, 0},  {6, 0},
                                                 {7, 0},  {8, 0},  {-1, 4}, {-2, 5}, {-3, 6},
                                                 {-4, 6}, {-5, 7}, {-6, 7}, {-7, 7}};
  auto it = kByDistance.find(d);
  return it == kByDistance.end() ? 8 : it->second;
}

Counts evaluate(const std::map<std::string, App>& apps) {
  Counts out;
  for (const auto& [name, a] : apps) {
    if (a.launches.empty()) continue;
    out.flags |= AppLaunchStatsCumu::kFlagLaunch | AppLaunchStatsCumu::kFlagPrewarmZones;
    std::set<int> slots;
    for (int t : a.launches) slots.insert(t / 15);
    for (int slot : slots) {
      out.flags |= AppLaunchStatsCumu::kFlagPredictZones;
      const int32_t zone = predictedZone(name, static_cast<uint64_t>(slot));
      if (zone >= 0 && zone <= 8) ++out.predict[zone];
    }
    if (!prefetchCapable(name)) continue;
    // A launch counts when it comes at least 15 minutes after the last counted one (the first
    // only starts the count); a hit when a prewarm fell after that one and up to itself.
    std::optional<int> last;
    for (int t : a.launches) {
      if (last && t - *last < 15) continue;
      if (last) {
        auto next = a.prewarms.upper_bound(*last);
        ++(a.prewarmArray && next != a.prewarms.end() && *next <= t ? out.hits : out.misses);
      }
      last = t;
    }
    for (int t : a.launches) ++out.prewarm[zoneOf(t, a)];
  }
  return out;
}

// Hands out the times of a script, one per reading, then a fixed time. Recording an event reads
// the clock exactly once in its task, so a day can be posted without waiting for each event; any
// other reading would shift the script and show as a mismatch.
struct ScriptedClock {
  std::mutex mutex;
  std::deque<double> script;
  double fixed = 1763722560.0;
  double read() {
    std::lock_guard<std::mutex> lock(mutex);
    if (script.empty()) return fixed;
    const double t = script.front();
    script.pop_front();
    return t;
  }
  void push(double t) {
    std::lock_guard<std::mutex> lock(mutex);
    script.push_back(t);
  }
  void setFixed(double t) {
    std::lock_guard<std::mutex> lock(mutex);
    fixed = t;
  }
  size_t left() {
    std::lock_guard<std::mutex> lock(mutex);
    return script.size();
  }
};

class ZonesModelTest : public StatsTest {
 protected:
  void SetUp() override {
    platform::Overrides o;
    o.clock = [clock = clock_] { return clock->read(); };
    o.metrics = metrics_;
    sandbox_.install(o);
  }

  // A day of a few applications whose events cluster around a time of their own, so that
  // prewarms and launches often fall within reach of each other; a few land outside the cycle.
  void recordRandomDay(uint32_t seed, double start, std::map<std::string, App>& model) {
    std::mt19937 rng(seed);
    auto uniform = [&rng](int64_t lo, int64_t hi) {
      return std::uniform_int_distribution<int64_t>(lo, hi)(rng);
    };
    const int apps = static_cast<int>(uniform(1, 4));
    for (int i = 0; i < apps * 14; ++i) {
      const std::string name = "app" + std::to_string(seed) + "." + std::to_string(i % apps);
      const bool launch = uniform(0, 2) != 0;
      const int64_t center = static_cast<int64_t>(std::hash<std::string>{}(name) % 86400);
      int64_t seconds = center + uniform(-9000, 9000);
      if (uniform(0, 19) == 0) seconds = uniform(-2000, 90000);
      App& a = model[name];
      const bool accepted = seconds >= -899 && seconds <= 86399;
      // 900 seconds make 15 minutes, so the minute of the cycle is the whole minutes elapsed.
      const int minute = seconds < 0 ? 0 : static_cast<int>(seconds / 60);
      if (accepted) (launch ? a.launches : a.prewarms).insert(minute);
      a.prewarmArray = a.prewarmArray || !launch;
      clock_->push(start + static_cast<double>(seconds));
      if (launch) {
        stats().appFGLaunch(name);
      } else {
        stats().appPrewarm(name);
      }
    }
  }

  void checkSeeds(uint32_t first, uint32_t count) {
    AppLaunchStatsCumu& s = stats();
    s.setCollectLaunchStats();
    double start = s.cycleStart();
    for (uint32_t seed = first; seed < first + count; ++seed) {
      SCOPED_TRACE(seed);
      std::map<std::string, App> model;
      recordRandomDay(seed, start, model);
      s.populatePredictZones(predictedZone);
      s.populatePrewarmZones(prefetchCapable);
      const AppLaunchStatsCumu::Snapshot got = s.snapshot();
      ASSERT_EQ(clock_->left(), 0u);
      const Counts want = evaluate(model);
      ASSERT_EQ(got.zoneCounts, want.predict);
      ASSERT_EQ(got.prewarmZoneCounts, want.prewarm);
      ASSERT_EQ(got.prewarmHits, want.hits);
      ASSERT_EQ(got.prewarmMiss, want.misses);
      ASSERT_EQ(got.hasStats, want.flags);
      // Close the day; the fetch attempt makes sure the upload runs and empties everything.
      s.fetchAttemptIncrement();
      start += 100000;
      clock_->setFixed(start);
      s.newCycleWithApps({});
      ASSERT_EQ(s.snapshot().cycleStart, start);
    }
  }

  std::shared_ptr<ScriptedClock> clock_ = std::make_shared<ScriptedClock>();
};

TEST_F(ZonesModelTest, AgreesWithTheModelOnSeeds0To1499) { checkSeeds(0, 1500); }
TEST_F(ZonesModelTest, AgreesWithTheModelOnSeeds1500To2999) { checkSeeds(1500, 1500); }

}  // namespace
}  // namespace kelo::test
