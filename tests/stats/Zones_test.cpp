#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/stats/StatsTesting.h"

namespace kelo::test {
namespace {

using ZoneArray = AppLaunchStatsCumu::ZoneArray;
using SlotArray = AppLaunchStatsCumu::SlotArray;
using Minutes = std::vector<std::pair<int, int>>;  // (slot, minute)

class ZonesTest : public StatsTest {
 protected:
  void SetUp() override {
    StatsTest::SetUp();
    stats().setCollectLaunchStats();
  }
  void record(const std::string& app, const Minutes& prewarms, const Minutes& launches) {
    for (auto [slot, minute] : prewarms) prewarmAt(app, at(slot, minute));
    for (auto [slot, minute] : launches) launchAt(app, at(slot, minute));
  }
};

TEST_F(ZonesTest, PrewarmPassLines) {
  enableLog();
  record("a", {{4, 10}, {20, 0}, {48, 0}, {54, 0}, {60, 5}},
         {{5, 2}, {5, 12}, {18, 1}, {40, 0}, {60, 3}});
  record("b", {}, {{1, 0}});
  record("c", {}, {{2, 0}, {2, 1}});
  record("p", {{3, 0}}, {});  // prewarms without launches: never looked at
  const std::size_t before = logTexts().size();
  std::vector<std::string> asked;
  stats().populatePrewarmZones([&asked](const std::string& app) {
    asked.push_back(app);
    return app != "b";
  });
  stats().snapshot();
  std::vector<std::string> lines = logTexts();
  lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
  EXPECT_EQ(asked, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "calculate prewarm hit on app a",
                       "app a, slot (5, 4) val (4100 1024)",
                       "prewarmPreDate15M ++",
                       "prewarmPreDate30M ++",
                       "post app a, slot (18, 20) val (2 1)",
                       "zone 5 ++",
                       "missed prewarm (40, 1)",  // slot 48 is beyond the forward reach
                       "zone 8 ++",
                       "app a, slot (60, 60) val (8 32)",
                       "backward look found 54 - from 60, val 1",
                       "zone 7 ++",
                       "calculate prewarm hit on app b",
                       "app is not a prefetch capable",
                       "calculate prewarm hit on app c",
                       "no prewarm (2 3)",
                       "zone 8 ++",
                       "zone 8 ++",
                       "========Prewarm data uploaded",
                   }));
  EXPECT_EQ(stats().snapshot().hasStats,
            AppLaunchStatsCumu::kFlagLaunch | AppLaunchStatsCumu::kFlagPrewarmZones);
}

TEST_F(ZonesTest, PredictionZonesCountEachLaunchSlotOnce) {
  record("a", {}, {{0, 0}, {0, 1}, {0, 14}, {7, 3}, {95, 14}});
  record("b", {}, {{7, 0}});
  std::vector<std::pair<std::string, uint64_t>> asked;
  stats().populatePredictZones([&asked](const std::string& app, uint64_t slot) {
    asked.emplace_back(app, slot);
    if (slot == 95) return 9;  // out of range: not counted
    return app == "b" ? -1 : static_cast<int32_t>(slot);
  });
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_EQ(asked, (std::vector<std::pair<std::string, uint64_t>>{
                       {"a", 0}, {"a", 7}, {"a", 95}, {"b", 7}}));
  EXPECT_EQ(s.zoneCounts, (ZoneArray{1, 0, 0, 0, 0, 0, 0, 1, 0}));
  EXPECT_NE(s.hasStats & AppLaunchStatsCumu::kFlagPredictZones, 0);
}

TEST_F(ZonesTest, EvaluationsNeedALaunchAndSurviveBadCallbacks) {
  record("p", {{1, 0}}, {});
  stats().populatePredictZones([](const std::string&, uint64_t) { return 0; });
  stats().populatePrewarmZones([](const std::string&) { return true; });
  EXPECT_EQ(stats().snapshot().hasStats, 0);

  record("a", {}, {{3, 0}});
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

TEST_F(ZonesTest, DistanceToLastPrewarm) {
  struct Case {
    int slot, offset;
    std::map<int, uint16_t> prewarms;  // slot -> minute bits
    int zone;
  };
  const Case cases[] = {
      {0, 5, {{0, 1}}, 4},       {10, 5, {}, 4},         {10, 5, {{9, 1 << 5}}, 3},
      {10, 6, {{9, 1 << 5}}, 2},  // 15 and 16 minutes
      {10, 0, {{8, 1}}, 2},      {10, 0, {{7, 1}}, 1},   {10, 0, {{6, 1}}, 1},
      {10, 0, {{5, 1}}, 7},      {10, 0, {{2, 1}}, 7},  // Pos2HR, unlike the direct table
      {10, 0, {{1, 1}}, 4},      {200, 0, {{95, 1}}, 4}, {100, 0, {{95, 1}}, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.slot << "/" << c.offset << " zone " << c.zone);
    SlotArray p{};
    for (auto [slot, bits] : c.prewarms) p[slot] = bits;
    EXPECT_EQ(stats().distanceToLastPrewarm(&p, c.slot, c.offset), c.zone);
  }
  EXPECT_EQ(stats().distanceToLastPrewarm(nullptr, 10, 0), 4);
}

TEST_F(ZonesTest, AccountingCountsEveryMinuteBitByDistance) {
  const std::map<int, int> table = {{-9, 8}, {-8, 8}, {-7, 7}, {-5, 7}, {-4, 6},
                                    {-3, 6}, {-2, 5}, {-1, 4}, {2, 2},  {3, 1},
                                    {4, 1},  {5, 0},  {8, 0},  {9, 8},  {10, 8}};
  for (auto [diff, zone] : table) {
    SCOPED_TRACE(diff);
    const ZoneArray before = stats().snapshot().prewarmZoneCounts;
    // Bits above minute 14 are not minutes.
    stats().accountPredatePrewarm(nullptr, 10, 0b111 | (1 << 15) | (1 << 20), 1, diff);
    EXPECT_EQ(stats().snapshot().prewarmZoneCounts[zone] - before[zone], 3);
  }
  // Inside a callback the steps run on the queue at once instead of waiting for it.
  record("a", {}, {{3, 0}});
  int32_t zone = -1;
  stats().populatePrewarmZones([&](const std::string&) {
    SlotArray p{};
    p[1] = 1;
    zone = stats().distanceToLastPrewarm(&p, 3, 0);
    return false;
  });
  stats().snapshot();
  EXPECT_EQ(zone, 2);
}

}  // namespace
}  // namespace kelo::test
