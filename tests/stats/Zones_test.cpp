#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/stats/StatsTesting.h"

namespace kelo::test {
namespace {

using ZoneArray = AppLaunchStatsCumu::ZoneArray;
using SlotArray = AppLaunchStatsCumu::SlotArray;

class ZonesTest : public StatsTest {
 protected:
  void SetUp() override {
    StatsTest::SetUp();
    stats().setCollectLaunchStats();
  }

  void launch(const std::string& app, std::vector<std::pair<int, int>> slotMinutes) {
    for (auto [slot, minute] : slotMinutes) launchAt(app, at(slot, minute));
  }
  void prewarm(const std::string& app, std::vector<std::pair<int, int>> slotMinutes) {
    for (auto [slot, minute] : slotMinutes) prewarmAt(app, at(slot, minute));
  }

  AppLaunchStatsCumu::Snapshot evaluatePrewarms() {
    stats().populatePrewarmZones([](const std::string&) { return true; });
    return stats().snapshot();
  }

  static ZoneArray zones(std::map<int, int> counts) {
    ZoneArray out{};
    for (auto [zone, count] : counts) out[zone] = count;
    return out;
  }
};

// Prewarm and launch placements by (slot, minute), with the prewarm zones they must produce.
struct PlacementCase {
  const char* name;
  std::vector<std::pair<int, int>> prewarms;
  std::vector<std::pair<int, int>> launches;
  std::map<int, int> zones;
};

TEST_F(ZonesTest, PrewarmZonesOfSinglePlacements) {
  const PlacementCase cases[] = {
      {"previous slot, 7 minutes", {{4, 10}}, {{5, 2}}, {{3, 1}}},
      {"previous slot, 17 minutes", {{4, 10}}, {{5, 12}}, {{2, 1}}},
      {"previous slot, latest prewarm minute counts", {{4, 0}, {4, 14}}, {{5, 0}}, {{3, 1}}},
      {"same slot, earlier minute", {{10, 3}}, {{10, 3}, {10, 9}}, {{3, 2}}},
      {"same slot, prewarm after launch", {{10, 5}}, {{10, 3}}, {{4, 1}}},
      {"same slot after, prewarm 6 slots back", {{4, 0}, {10, 5}}, {{10, 3}}, {{7, 1}}},
      {"same slot after, prewarm 9 slots back", {{1, 0}, {10, 5}}, {{10, 3}}, {{4, 1}}},
      {"same slot after, prewarm 12 minutes before", {{9, 6}, {10, 5}}, {{10, 3}}, {{3, 1}}},
      {"same slot after, prewarm 17 minutes before", {{9, 1}, {10, 5}}, {{10, 3}}, {{2, 1}}},
      {"same slot, before and after", {{9, 1}, {10, 5}}, {{10, 3}, {10, 8}}, {{2, 1}, {3, 1}}},
      {"same slot after, prewarm 2 slots back", {{8, 6}, {10, 5}}, {{10, 3}}, {{2, 1}}},
      {"same slot after, prewarm 4 slots back", {{6, 6}, {10, 5}}, {{10, 3}}, {{1, 1}}},
      {"same slot after, at slot 0", {{0, 5}}, {{0, 3}}, {{4, 1}}},
      {"two slots back", {{8, 0}}, {{10, 0}, {10, 1}}, {{2, 2}}},
      {"four slots back", {{6, 0}}, {{10, 0}}, {{1, 1}}},
      {"eight slots back", {{2, 0}}, {{10, 0}}, {{0, 1}}},
      {"backward before forward", {{2, 0}, {11, 0}}, {{10, 0}}, {{0, 1}}},
      {"nine back: forward wins", {{1, 0}, {11, 0}}, {{10, 0}}, {{4, 1}}},
      {"two ahead", {{12, 0}}, {{10, 0}}, {{5, 1}}},
      {"four ahead", {{14, 0}}, {{10, 0}}, {{6, 1}}},
      {"seven ahead", {{17, 0}}, {{10, 4}}, {{7, 1}}},
      {"eight ahead: missed", {{18, 0}}, {{10, 4}, {10, 5}}, {{8, 2}}},
      {"slot 90 sees slot 95", {{95, 14}}, {{90, 0}}, {{7, 1}}},
      {"slot 95 with nothing near", {{0, 0}}, {{95, 0}}, {{8, 1}}},
      {"rejected prewarm: present but empty", {{96, 0}}, {{10, 0}, {10, 2}}, {{8, 2}}},
  };
  for (const PlacementCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string app = c.name;
    prewarm(app, c.prewarms);
    launch(app, c.launches);
  }
  // Evaluated one application at a time: the callback admits only the current one.
  for (const PlacementCase& c : cases) {
    SCOPED_TRACE(c.name);
    const ZoneArray before = stats().snapshot().prewarmZoneCounts;
    const std::string name = c.name;
    stats().populatePrewarmZones([name](const std::string& app) { return app == name; });
    const ZoneArray after = stats().snapshot().prewarmZoneCounts;
    ZoneArray delta{};
    for (int z = 0; z < 9; ++z) delta[z] = after[z] - before[z];
    EXPECT_EQ(delta, zones(c.zones));
  }
}

TEST_F(ZonesTest, PrewarmZoneLinesNameSlotsAndValues) {
  enableLog();
  prewarm("a", {{4, 10}, {20, 0}, {48, 0}});  // slot 48 is one slot beyond the forward reach
  launch("a", {{5, 2}, {5, 12}, {18, 1}, {40, 0}});
  launch("b", {{1, 0}});
  const std::size_t recorded = logTexts().size();
  stats().populatePrewarmZones([](const std::string& app) { return app == "a"; });
  stats().snapshot();
  std::vector<std::string> lines = logTexts();
  lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(recorded));
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "calculate prewarm hit on app a",
                       "app a, slot (5, 4) val (4100 1024)",
                       "prewarmPreDate15M ++",
                       "prewarmPreDate30M ++",
                       "post app a, slot (18, 20) val (2 1)",
                       "zone 5 ++",
                       "missed prewarm (40, 1)",
                       "zone 8 ++",
                       "calculate prewarm hit on app b",
                       "app is not a prefetch capable",
                       "========Prewarm data uploaded",
                   }));
}

TEST_F(ZonesTest, SameSlotLinesTellTheBackwardLook) {
  enableLog();
  prewarm("c", {{4, 0}, {10, 5}});
  launch("c", {{10, 3}, {10, 6}});
  const std::size_t recorded = logTexts().size();
  evaluatePrewarms();
  std::vector<std::string> lines = logTexts();
  lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(recorded));
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "calculate prewarm hit on app c",
                       "app c, slot (10, 10) val (72 32)",
                       "backward look found 4 - from 10, val 1",
                       "zone 7 ++",
                       "prewarmPreDate15M ++",
                       "========Prewarm data uploaded",
                   }));
}

TEST_F(ZonesTest, LaunchesWithoutPrewarmArrayCountNoneAndAtMostOneMissPerSlot) {
  enableLog();
  launch("a", {{2, 0}, {2, 5}, {3, 1}, {3, 2}, {10, 0}, {10, 14}});
  const AppLaunchStatsCumu::Snapshot s = evaluatePrewarms();
  EXPECT_EQ(s.prewarmZoneCounts, zones({{8, 6}}));
  EXPECT_EQ(s.prewarmHits, 0);
  EXPECT_EQ(s.prewarmMiss, 2);  // slots 3 and 10; slot 2 holds the first launch
  EXPECT_EQ(logCount("no prewarm (2 33)"), 1u);
  EXPECT_EQ(logCount("no prewarm (10 16385)"), 1u);
  EXPECT_EQ(logCount("zone 8 ++"), 6u);
  EXPECT_EQ(s.hasStats, AppLaunchStatsCumu::kFlagLaunch | AppLaunchStatsCumu::kFlagPrewarmZones);
}

struct HitMissCase {
  const char* name;
  std::vector<std::pair<int, int>> prewarms;
  std::vector<std::pair<int, int>> launches;
  int hits, misses;
};

TEST_F(ZonesTest, HitsAndMissesCountLaunchesFifteenMinutesApart) {
  const HitMissCase cases[] = {
      {"first launch only sets the reference", {{0, 0}}, {{1, 0}}, 0, 0},
      {"minute 10 of the first slot is not examined", {{1, 5}}, {{1, 0}, {1, 10}, {2, 0}}, 1, 0},
      {"prewarm before the reference is not between", {{1, 0}}, {{1, 0}, {2, 0}}, 0, 1},
      {"prewarm in the launch minute is between", {{2, 0}}, {{1, 0}, {2, 0}}, 1, 0},
      {"14 minutes later is not counted", {{1, 7}}, {{1, 1}, {2, 0}}, 0, 0},
      {"counted launches move the reference", {{3, 3}}, {{1, 0}, {2, 0}, {3, 0}, {3, 5}, {4, 5}},
       1, 2},
      {"prewarm long ago still between", {{1, 0}}, {{0, 0}, {40, 0}}, 1, 0},
      {"present but empty prewarm array", {{97, 0}}, {{0, 0}, {5, 0}, {9, 3}}, 0, 2},
      {"no prewarm array", {}, {{0, 0}, {5, 0}, {9, 3}}, 0, 2},
  };
  for (const HitMissCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string app = c.name;
    prewarm(app, c.prewarms);
    launch(app, c.launches);
    const AppLaunchStatsCumu::Snapshot before = stats().snapshot();
    stats().populatePrewarmZones([app](const std::string& a) { return a == app; });
    const AppLaunchStatsCumu::Snapshot after = stats().snapshot();
    EXPECT_EQ(after.prewarmHits - before.prewarmHits, c.hits);
    EXPECT_EQ(after.prewarmMiss - before.prewarmMiss, c.misses);
  }
}

TEST_F(ZonesTest, PrewarmsWithoutLaunchesContributeNothing) {
  prewarm("p", {{1, 0}, {2, 0}});
  launch("a", {{5, 0}});
  std::vector<std::string> asked;
  stats().populatePrewarmZones([&asked](const std::string& app) {
    asked.push_back(app);
    return true;
  });
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_EQ(asked, std::vector<std::string>{"a"});
  EXPECT_EQ(s.prewarmZoneCounts, zones({{8, 1}}));
}

TEST_F(ZonesTest, WithoutALaunchBothEvaluationsDoNothing) {
  prewarm("p", {{1, 0}});
  bool called = false;
  stats().populatePredictZones([&](const std::string&, uint64_t) {
    called = true;
    return 0;
  });
  stats().populatePrewarmZones([&](const std::string&) { return called = true; });
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_FALSE(called);
  EXPECT_EQ(s.hasStats, 0);
}

TEST_F(ZonesTest, NoCapableApplicationStillClosesThePass) {
  enableLog();
  launch("a", {{5, 0}});
  stats().populatePrewarmZones([](const std::string&) { return false; });
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_EQ(s.hasStats & AppLaunchStatsCumu::kFlagPrewarmZones,
            AppLaunchStatsCumu::kFlagPrewarmZones);
  EXPECT_EQ(s.prewarmZoneCounts, ZoneArray{});
  EXPECT_EQ(logCount("app is not a prefetch capable"), 1u);
  EXPECT_EQ(logCount("========Prewarm data uploaded"), 1u);
}

TEST_F(ZonesTest, PredictionZonesCountEachLaunchSlotOnce) {
  launch("a", {{0, 0}, {0, 1}, {0, 14}, {7, 3}, {95, 14}});
  launch("b", {{7, 0}});
  std::vector<std::pair<std::string, uint64_t>> asked;
  stats().populatePredictZones([&asked](const std::string& app, uint64_t slot) {
    asked.emplace_back(app, slot);
    if (slot == 95) return 9;  // out of range: ignored
    if (app == "b") return -1;
    return static_cast<int32_t>(slot % 9);
  });
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_EQ(asked, (std::vector<std::pair<std::string, uint64_t>>{
                       {"a", 0}, {"a", 7}, {"a", 95}, {"b", 7}}));
  EXPECT_EQ(s.zoneCounts, zones({{0, 1}, {7, 1}}));
  EXPECT_NE(s.hasStats & AppLaunchStatsCumu::kFlagPredictZones, 0);
}

TEST_F(ZonesTest, OutOfRangeZonesStillMarkThePass) {
  launch("a", {{3, 0}});
  stats().populatePredictZones([](const std::string&, uint64_t) { return 100; });
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_EQ(s.zoneCounts, ZoneArray{});
  EXPECT_NE(s.hasStats & AppLaunchStatsCumu::kFlagPredictZones, 0);
  stats().newCycleWithApps({});
  stats().snapshot();
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.predictHitNone"), 0);
}

TEST_F(ZonesTest, FailingOrEmptyCallbacksAreHarmless) {
  launch("a", {{3, 0}});
  stats().populatePredictZones(nullptr);
  stats().populatePrewarmZones(nullptr);
  EXPECT_EQ(stats().snapshot().hasStats, AppLaunchStatsCumu::kFlagLaunch);
  stats().populatePredictZones(
      [](const std::string&, uint64_t) -> int32_t { throw std::runtime_error("no"); });
  stats().populatePrewarmZones([](const std::string&) -> bool { throw std::runtime_error("no"); });
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_EQ(s.zoneCounts, ZoneArray{});
  EXPECT_EQ(s.prewarmZoneCounts, ZoneArray{});
  EXPECT_EQ(s.hasStats, AppLaunchStatsCumu::kFlagLaunch | AppLaunchStatsCumu::kFlagPredictZones |
                            AppLaunchStatsCumu::kFlagPrewarmZones);
}

// The backward look of a launch that found its prewarm later in its own slot.
struct BackwardCase {
  int slot, offset;
  std::map<int, uint16_t> prewarms;  // slot -> minute bits
  int zone;
};

TEST_F(ZonesTest, DistanceToLastPrewarm) {
  const BackwardCase cases[] = {
      {0, 5, {{0, 1}}, 4},
      {10, 5, {}, 4},
      {10, 5, {{9, 1 << 5}}, 3},   // 15 minutes: still Neg15M
      {10, 6, {{9, 1 << 5}}, 2},   // 16 minutes
      {10, 14, {{9, 1 << 14 | 1}}, 3},
      {10, 0, {{8, 1}}, 2},
      {10, 0, {{7, 1}}, 1},
      {10, 0, {{6, 1}}, 1},
      {10, 0, {{5, 1}}, 7},
      {10, 0, {{2, 1}}, 7},        // 8 back: Pos2HR, unlike the direct table
      {10, 0, {{1, 1}}, 4},        // 9 back: out of reach
      {10, 0, {{1, 1}, {4, 1}}, 7},
      {3, 0, {{0, 1}}, 1},
      {200, 0, {{95, 1}}, 4},      // beyond the array: empty
      {100, 0, {{95, 1}}, 7},
  };
  for (const BackwardCase& c : cases) {
    SCOPED_TRACE(testing::Message() << c.slot << "/" << c.offset << " zone " << c.zone);
    SlotArray p{};
    for (auto [slot, bits] : c.prewarms) p[slot] = bits;
    EXPECT_EQ(stats().distanceToLastPrewarm(&p, c.slot, c.offset), c.zone);
  }
  EXPECT_EQ(stats().distanceToLastPrewarm(nullptr, 10, 0), 4);
}

TEST_F(ZonesTest, AccountingByDistanceCountsEveryMinuteBit) {
  const std::map<int, int> table = {{-9, 8}, {-8, 8}, {-7, 7}, {-5, 7}, {-4, 6}, {-3, 6},
                                    {-2, 5}, {-1, 4}, {2, 2},  {3, 1},  {4, 1},  {5, 0},
                                    {8, 0},  {9, 8},  {10, 8}, {1000, 8}};
  for (auto [diff, zone] : table) {
    SCOPED_TRACE(diff);
    const ZoneArray before = stats().snapshot().prewarmZoneCounts;
    // Bits above minute 14 are not minutes.
    stats().accountPredatePrewarm(nullptr, 10, 0b111 | (1 << 15) | (1 << 20), 1, diff);
    const ZoneArray after = stats().snapshot().prewarmZoneCounts;
    EXPECT_EQ(after[zone] - before[zone], 3);
  }
  // Previous slot without a prewarm minute: every minute is more than 15 minutes away.
  stats().accountPredatePrewarm(nullptr, 10, 0b11, 0, 1);
  EXPECT_EQ(stats().snapshot().prewarmZoneCounts[2], 3 + 2);
}

TEST_F(ZonesTest, StepsRunInsideACallbackWithoutWaiting) {
  launch("a", {{3, 0}});
  int32_t zone = -1;
  stats().populatePrewarmZones([&](const std::string&) {
    SlotArray p{};
    p[1] = 1;
    zone = stats().distanceToLastPrewarm(&p, 3, 0);  // on the queue: runs inline
    return false;
  });
  stats().snapshot();
  EXPECT_EQ(zone, 2);
}

}  // namespace
}  // namespace kelo::test
