// The three evaluations against a separate, plain reading of their rules, on random days.
//
// The model works on absolute minutes of the cycle (slot * 15 + minute) and on sets, where the
// collector works on per-slot bitmasks; both must agree on every count.
#include <algorithm>
#include <cstdint>
#include <deque>
#include <mutex>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/stats/StatsTesting.h"

namespace kelo::test {
namespace {

using ZoneArray = AppLaunchStatsCumu::ZoneArray;

struct Event {
  std::string app;
  int64_t seconds;  // after cycleStart
  bool launch;
};

struct Expected {
  ZoneArray predict{};
  ZoneArray prewarm{};
  int32_t hits = 0;
  int32_t misses = 0;
  int32_t flags = 0;
};

// Stand-ins for the daemon's callbacks: fixed functions of their arguments.
int32_t predictedZone(const std::string& app, uint64_t slot) {
  return static_cast<int32_t>((std::hash<std::string>{}(app) + slot * 7) % 11) - 1;  // -1..9
}
bool prefetchCapable(const std::string& app) { return std::hash<std::string>{}(app) % 5 != 0; }

// The minute of the cycle an accepted event lands in, or nullopt when it is rejected.
std::optional<int> cycleMinute(int64_t seconds) {
  if (seconds < -899 || seconds > 86399) return std::nullopt;
  if (seconds < 0) return 0;
  return static_cast<int>(seconds / 900 * 15 + seconds % 900 / 60);
}

class Model {
 public:
  void add(const Event& e) {
    (e.launch ? launchApps_ : prewarmApps_).insert(e.app);
    if (std::optional<int> minute = cycleMinute(e.seconds)) {
      (e.launch ? launches_ : prewarms_)[e.app].insert(*minute);
    }
  }

  Expected evaluate() const {
    Expected out;
    bool anyLaunch = false;
    for (const auto& [app, minutes] : launches_) anyLaunch = anyLaunch || !minutes.empty();
    if (!anyLaunch) return out;
    out.flags = AppLaunchStatsCumu::kFlagLaunch | AppLaunchStatsCumu::kFlagPrewarmZones;
    for (const std::string& app : launchApps_) {
      const std::set<int> launched = minutesOf(launches_, app);
      for (int slot : slotsOf(launched)) {
        out.flags |= AppLaunchStatsCumu::kFlagPredictZones;
        const int32_t zone = predictedZone(app, static_cast<uint64_t>(slot));
        if (zone >= 0 && zone <= 8) ++out.predict[zone];
      }
      if (!prefetchCapable(app)) continue;
      const bool hasPrewarms = prewarmApps_.count(app) != 0;
      const std::set<int> prewarmed = minutesOf(prewarms_, app);
      countHits(launched, hasPrewarms, prewarmed, out);
      for (int t : launched) ++out.prewarm[zoneOf(t, hasPrewarms, prewarmed)];
    }
    return out;
  }

 private:
  static std::set<int> minutesOf(const std::map<std::string, std::set<int>>& m,
                                 const std::string& app) {
    auto it = m.find(app);
    return it == m.end() ? std::set<int>{} : it->second;
  }
  static std::set<int> slotsOf(const std::set<int>& minutes) {
    std::set<int> slots;
    for (int t : minutes) slots.insert(t / 15);
    return slots;
  }
  static bool slotHasPrewarm(const std::set<int>& prewarmed, int slot) {
    auto it = prewarmed.lower_bound(slot * 15);
    return it != prewarmed.end() && *it < slot * 15 + 15;
  }
  static int lastMinuteIn(const std::set<int>& prewarmed, int slot) {
    return *std::prev(prewarmed.lower_bound(slot * 15 + 15)) - slot * 15;
  }

  // A launch counts when it is at least 15 minutes after the previous counted one; it is a hit
  // when a prewarm fell after that one and no later than itself. The first launch only starts
  // the count.
  static void countHits(const std::set<int>& launched, bool hasPrewarms,
                        const std::set<int>& prewarmed, Expected& out) {
    std::optional<int> last;
    for (int t : launched) {
      if (!last) {
        last = t;
        continue;
      }
      if (t - *last < 15) continue;
      const auto between = prewarmed.upper_bound(*last);
      if (hasPrewarms && between != prewarmed.end() && *between <= t) {
        ++out.hits;
      } else {
        ++out.misses;
      }
      last = t;
    }
  }

  // The zone of the launch at minute t: measured to the nearest prewarm slot at most 8 slots
  // before (its own slot first), else at most 7 slots after.
  static int zoneOf(int t, bool hasPrewarms, const std::set<int>& prewarmed) {
    if (!hasPrewarms) return 8;
    const int s = t / 15;
    std::optional<int> p;
    for (int q = s; q >= std::max(0, s - 8) && !p; --q) {
      if (slotHasPrewarm(prewarmed, q)) p = q;
    }
    for (int q = s + 1; q <= std::min(95, s + 7) && !p; ++q) {
      if (slotHasPrewarm(prewarmed, q)) p = q;
    }
    if (!p) return 8;
    const int d = s - *p;
    if (d == 1) return t - (*p * 15 + lastMinuteIn(prewarmed, *p)) <= 15 ? 3 : 2;
    if (d == 0) {
      // Launched before every prewarm of its own slot: look further back for one.
      if (*prewarmed.lower_bound(s * 15) <= t) return 3;
      for (int j = s - 1; j >= std::max(0, s - 8); --j) {
        if (!slotHasPrewarm(prewarmed, j)) continue;
        const int k = s - j;
        if (k == 1) return t - (j * 15 + lastMinuteIn(prewarmed, j)) <= 15 ? 3 : 2;
        if (k == 2) return 2;
        if (k <= 4) return 1;
        return 7;
      }
      return 4;
    }
    static const std::map<int, int> kByDistance = {{2, 2},  {3, 1},  {4, 1},  {5, 0},
                                                   {6, 0},  {7, 0},  {8, 0},  {-1, 4},
                                                   {-2, 5}, {-3, 6}, {-4, 6}, {-5, 7},
                                                   {-6, 7}, {-7, 7}};
    auto it = kByDistance.find(d);
    return it == kByDistance.end() ? 8 : it->second;
  }

  std::set<std::string> launchApps_, prewarmApps_;
  std::map<std::string, std::set<int>> launches_, prewarms_;
};

// A day of a few applications whose events cluster around a time of their own, so that
// prewarms and launches often fall within reach of each other; a few land outside the cycle.
std::vector<Event> randomDay(uint32_t seed) {
  std::mt19937 rng(seed);
  auto uniform = [&rng](int64_t lo, int64_t hi) {
    return std::uniform_int_distribution<int64_t>(lo, hi)(rng);
  };
  std::vector<Event> events;
  const int apps = static_cast<int>(uniform(1, 4));
  for (int a = 0; a < apps; ++a) {
    const std::string app = "app" + std::to_string(seed) + "." + std::to_string(a);
    const int64_t center = uniform(0, 86399);
    const int64_t spread = uniform(0, 3) == 0 ? 1800 : 9000;
    for (bool launch : {true, false}) {
      const int count = static_cast<int>(uniform(0, launch ? 12 : 8));
      for (int i = 0; i < count; ++i) {
        int64_t seconds = center + uniform(-spread, spread);
        if (uniform(0, 19) == 0) seconds = uniform(-2000, 90000);
        events.push_back({app, seconds, launch});
      }
    }
  }
  std::shuffle(events.begin(), events.end(), rng);
  return events;
}

// A clock that hands out the times of a script, one per reading, and a fixed time once the
// script is used up. Recording an event reads the clock exactly once in its task, so a whole
// day can be posted at once without waiting for each event before the clock moves; any other
// reading during a day would shift the script and show up as a mismatch.
class ScriptedClock {
 public:
  double read() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (script_.empty()) return fixed_;
    const double t = script_.front();
    script_.pop_front();
    return t;
  }
  void setFixed(double t) {
    std::lock_guard<std::mutex> lock(mutex_);
    fixed_ = t;
  }
  void append(double t) {
    std::lock_guard<std::mutex> lock(mutex_);
    script_.push_back(t);
  }
  std::size_t left() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return script_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::deque<double> script_;
  double fixed_ = 1763722560.0;
};

class ZonesModelTest : public StatsTest {
 protected:
  void SetUp() override {
    platform::Overrides o;
    o.metrics = metrics_;
    o.clock = [clock = clock_] { return clock->read(); };
    sandbox_.install(o);
  }

  void checkSeeds(uint32_t first, uint32_t count) {
    AppLaunchStatsCumu& s = stats();
    s.setCollectLaunchStats();
    double start = s.cycleStart();
    for (uint32_t seed = first; seed < first + count; ++seed) {
      SCOPED_TRACE(seed);
      Model model;
      for (const Event& e : randomDay(seed)) {
        model.add(e);
        clock_->append(start + static_cast<double>(e.seconds));
        if (e.launch) {
          s.appFGLaunch(e.app);
        } else {
          s.appPrewarm(e.app);
        }
      }
      s.populatePredictZones(predictedZone);
      s.populatePrewarmZones(prefetchCapable);
      const AppLaunchStatsCumu::Snapshot got = s.snapshot();
      ASSERT_EQ(clock_->left(), 0u);
      const Expected want = model.evaluate();
      ASSERT_EQ(got.zoneCounts, want.predict);
      ASSERT_EQ(got.prewarmZoneCounts, want.prewarm);
      ASSERT_EQ(got.prewarmHits, want.hits);
      ASSERT_EQ(got.prewarmMiss, want.misses);
      ASSERT_EQ(got.hasStats, want.flags);
      // Close the day: a flag makes sure the upload runs and empties everything.
      s.fetchAttemptIncrement();
      start += 100000;
      clock_->setFixed(start);
      s.newCycleWithApps({});
      ASSERT_EQ(s.snapshot().cycleStart, start);
    }
  }

  std::shared_ptr<ScriptedClock> clock_ = std::make_shared<ScriptedClock>();
};

TEST_F(ZonesModelTest, AgreesWithTheModelOnSeeds0To999) { checkSeeds(0, 1000); }
TEST_F(ZonesModelTest, AgreesWithTheModelOnSeeds1000To1999) { checkSeeds(1000, 1000); }
TEST_F(ZonesModelTest, AgreesWithTheModelOnSeeds2000To2999) { checkSeeds(2000, 1000); }

}  // namespace
}  // namespace kelo::test
