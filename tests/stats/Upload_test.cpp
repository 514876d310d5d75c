#include <string>
#include <vector>

#include "tests/stats/StatsTesting.h"

namespace kelo::test {
namespace {

class UploadTest : public StatsTest {
 protected:
  static std::vector<Entry> zoneEntries(const std::string& prefix, Op op,
                                        const std::vector<int64_t>& counts) {
    static const char* const kNames[] = {"Neg2HR", "Neg1HR", "Neg30M", "Neg15M", "Pos15M",
                                         "Pos30M", "Pos1HR", "Pos2HR", "None"};
    std::vector<Entry> out;
    for (int zone = 0; zone < 9; ++zone) {
      out.push_back({op, "com.vorn.Kelo." + prefix + kNames[zone], counts[zone]});
    }
    return out;
  }
};

// Every group present: every key, in order, with its own operation and value.
TEST_F(UploadTest, EveryKeyWithItsOperationAndTheLogLines) {
  enableLog();
  AppLaunchStatsCumu& s = stats();
  for (int i = 0; i < 3; ++i) s.fetchAttemptIncrement();
  s.fetchDeniedBecause(false, true, true, true, true);
  for (int i = 0; i < 2; ++i) s.fetchDeniedBecause(true, false, false, false, false);
  for (int i = 0; i < 4; ++i) s.fetchDeniedBecause(true, true, false, false, false);
  s.fetchDenied();
  for (int i = 0; i < 5; ++i) s.forceReleaseCount();
  for (int i = 0; i < 6; ++i) s.pushAttemptIncrement();
  s.pushDeniedBecause(false, false, false, false, false);
  for (int i = 0; i < 2; ++i) s.pushDeniedBecause(true, false, false, false, false);
  for (int i = 0; i < 3; ++i) s.pushDeniedBecause(true, true, false, false, false);
  s.pushDenied();
  s.fetchCountUpdate(4);
  s.fetchFailedUpdate();
  s.fetchFailedUpdate();
  s.fetchPWCount(10);
  s.fetchDataCount(-3);
  s.fetchDataCount(-3);
  s.fetchDataCount(-4);
  s.fetchTimeUpdate(7);
  s.fetchTimeUpdate(8);
  s.backgroundSucceeds(100, 5);
  s.backgroundSucceeds(51, 2);
  s.nonDiscretionaryAdd(1000, 20);
  // Launches in slots 0 and 3 after a prewarm in slot 0.
  s.setCollectLaunchStats();
  launchAt("app", 0);
  prewarmAt("app", 0);
  launchAt("app", at(3, 0));
  s.populatePredictZones([](const std::string&, uint64_t slot) { return slot == 0 ? 5 : 9; });
  s.populatePrewarmZones([](const std::string&) { return true; });
  s.newCycleWithApps({Value::string("next")});
  const AppLaunchStatsCumu::Snapshot after = s.snapshot();

  std::vector<Entry> expected = {
      {Op::kSet, "com.vorn.Kelo.totalNonDISCData", 1000},
      {Op::kSet, "com.vorn.Kelo.totalNonDISCEnergy", 20},
      {Op::kSet, "com.vorn.Kelo.fetch.any.triggered", 3},
      {Op::kSet, "com.vorn.Kelo.fetch.denied", 8},
      {Op::kSet, "com.vorn.Kelo.fetch.denied.energy_budget", 2},
      {Op::kSet, "com.vorn.Kelo.fetch.denied.data_budget", 1},
      {Op::kSet, "com.vorn.Kelo.fetch.denied.poor_signal", 4},
      {Op::kAdd, "com.vorn.Kelo.forcedRelease", 5},
      {Op::kAdd, "com.vorn.Kelo.push.total_requests", 6},
      {Op::kAdd, "com.vorn.Kelo.push.denied", 7},
      {Op::kAdd, "com.vorn.Kelo.push.denied.data_budget", 1},
      {Op::kAdd, "com.vorn.Kelo.push.denied.energy_budget", 2},
      {Op::kAdd, "com.vorn.Kelo.push.denied.poor_signal", 3},
      {Op::kAdd, "com.vorn.Kelo.fetch.updates.given", 4},
      {Op::kAdd, "com.vorn.Kelo.fetch.updates.failed", 2},
      {Op::kAdd, "com.vorn.Kelo.fetch.updates.energy_used", 2},
      {Op::kAdd, "com.vorn.Kelo.fetch.updates.data_used", -3},  // -10 / 3 truncates to -3
      {Op::kAdd, "com.vorn.Kelo.fetch.updates.time", 7},
  };
  for (const Entry& e : zoneEntries("predictHit", Op::kSet, {0, 0, 0, 0, 0, 1, 0, 0, 0})) {
    expected.push_back(e);
  }
  // Slot 0 met its prewarm in the same minute (Neg15M), slot 3 three slots later (Neg1HR);
  // no prewarm fell between the two launches.
  for (const Entry& e : zoneEntries("prewarmHit", Op::kSet, {0, 1, 0, 1, 0, 0, 0, 0, 0})) {
    expected.push_back(e);
  }
  expected.push_back({Op::kSet, "com.vorn.Kelo.prewarmHit", 0});
  expected.push_back({Op::kAdd, "com.vorn.Kelo.prewarmMiss", 1});
  expected.push_back({Op::kSet, "com.vorn.Kelo.avgBGDownloadSize", 75});
  expected.push_back({Op::kSet, "com.vorn.Kelo.avgBGEnergy", 3});
  EXPECT_EQ(metrics_->entries(), expected);

  for (int32_t counter :
       {after.hasStats, after.fetchDeniedNoData, after.fetchDeniedNoPW, after.fetchDeniedPoorCell,
        after.fetchDenied, after.fetchAttempt, after.pushDeniedNoData, after.pushDeniedNoPW,
        after.pushDeniedPoorCell, after.pushDenied, after.pushAttempt, after.fetchDataCount,
        after.fetchPWTotal, after.fetchGiven, after.fetchFailedCount, after.fetchUpdateTimeCount,
        after.forceRelease, after.prewarmHits, after.prewarmMiss, after.totalBGDownloads}) {
    EXPECT_EQ(counter, 0);
  }
  EXPECT_EQ(after.fetchDataTotal, 0);
  EXPECT_EQ(after.fetchUpdateTimeTotal, 0);
  EXPECT_EQ(after.avgPWConsumed, 0);
  EXPECT_EQ(after.totalNonDiscEnergy, 0);
  EXPECT_EQ(after.zoneCounts, AppLaunchStatsCumu::ZoneArray{});
  EXPECT_EQ(after.prewarmZoneCounts, AppLaunchStatsCumu::ZoneArray{});
  EXPECT_EQ(after.prewarmMiss, 0);
  EXPECT_EQ(after.avgDownloadsize, 0);
  EXPECT_EQ(after.totalBGDownloads, 0);
  EXPECT_EQ(after.totalNonDiscDownload, 0);
  EXPECT_EQ(after.launchApps, 0u);
  EXPECT_EQ(after.prewarmApps, 0u);
  ASSERT_NE(s.pastCycle(), nullptr);
  EXPECT_EQ(*s.pastCycle(), AppLaunchStatsCumu::Predictions{Value::string("next")});

  const std::vector<std::string> lines = logTexts();
  for (const char* line : {"fetch attempt=3, denied=8, noPW=2, noData=1, poorCell=4",
                           "push attempt=6, denied=7, noPW=2, noData=1, poorCell=3",
                           "Fetch given=4, failed=2", "Fetch avg energy count=10/4",
                           "Fetch avg data count=-10/3", "Fetch avg time count=15/2"}) {
    EXPECT_EQ(logCount(line), 1u) << line;
  }
}

// Only the groups whose flag is set are written and reset; the rest waits for a later upload.
TEST_F(UploadTest, GroupsWithoutTheirFlagKeepTheirCounters) {
  AppLaunchStatsCumu& s = stats();
  s.fetchAttemptIncrement();
  s.fetchDeniedBecause(true, true, false, false, false);
  s.forceReleaseCount();
  s.pushDeniedBecause(false, false, false, false, false);  // no push attempt: flag 32 clear
  s.fetchDataCount(9);                                     // no count update: flag 64 clear
  s.fetchTimeUpdate(4);
  s.fetchFailedUpdate();
  s.newCycleWithApps({});
  const AppLaunchStatsCumu::Snapshot after = s.snapshot();

  const std::vector<Entry> expected = {
      {Op::kSet, "com.vorn.Kelo.totalNonDISCData", 0},
      {Op::kSet, "com.vorn.Kelo.totalNonDISCEnergy", 0},
      {Op::kSet, "com.vorn.Kelo.fetch.any.triggered", 1},
      {Op::kSet, "com.vorn.Kelo.fetch.denied", 1},
      {Op::kSet, "com.vorn.Kelo.fetch.denied.energy_budget", 0},
      {Op::kSet, "com.vorn.Kelo.fetch.denied.data_budget", 0},
      {Op::kSet, "com.vorn.Kelo.fetch.denied.poor_signal", 1},
      {Op::kAdd, "com.vorn.Kelo.forcedRelease", 1},
  };
  EXPECT_EQ(metrics_->entries(), expected);
  EXPECT_EQ(after.fetchAttempt, 0);
  EXPECT_EQ(after.fetchDeniedPoorCell, 0);
  EXPECT_EQ(after.forceRelease, 0);
  EXPECT_EQ(after.pushDenied, 1);
  EXPECT_EQ(after.pushDeniedNoData, 1);
  EXPECT_EQ(after.fetchDataTotal, 9);
  EXPECT_EQ(after.fetchDataCount, 1);
  EXPECT_EQ(after.fetchUpdateTimeTotal, 4);
  EXPECT_EQ(after.fetchFailedCount, 1);
  EXPECT_EQ(after.hasStats, 0);

  // A push attempt a day later takes the push group, and the fetch updates still wait.
  metrics_->clear();
  s.pushAttemptIncrement();
  s.snapshot();  // the task reads the clock: let it run before the clock moves
  sandbox_.advance(86401);
  s.pushAttemptIncrement();
  s.snapshot();
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.push.total_requests"), 2);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.push.denied.data_budget"), 1);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.updates.data_used"), std::nullopt);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.any.triggered"), std::nullopt);
  EXPECT_EQ(s.snapshot().fetchDataTotal, 9);
}

TEST_F(UploadTest, AveragesAreWrittenOnlyWithADivisor) {
  enableLog();
  AppLaunchStatsCumu& s = stats();
  s.fetchCountUpdate(0);
  s.fetchFailedUpdate();
  s.fetchPWCount(9);
  s.fetchDataCount(10);
  s.fetchDataCount(0);
  s.fetchDataCount(0);
  s.newCycleWithApps({});
  const AppLaunchStatsCumu::Snapshot after = s.snapshot();

  EXPECT_EQ(metrics_->entriesFor("com.vorn.Kelo.fetch.updates.given"),
            (std::vector<Entry>{{Op::kAdd, "com.vorn.Kelo.fetch.updates.given", 0}}));
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.updates.failed"), 1);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.updates.energy_used"), std::nullopt);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.updates.data_used"), 3);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.updates.time"), std::nullopt);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.avgBGDownloadSize"), std::nullopt);
  EXPECT_EQ(logCount("Fetch given=0, failed=1"), 1u);
  EXPECT_EQ(logCount("Fetch avg data count=10/3"), 1u);
  for (const std::string& line : logTexts()) {
    EXPECT_EQ(line.rfind("Fetch avg energy", 0), std::string::npos) << line;
    EXPECT_EQ(line.rfind("Fetch avg time", 0), std::string::npos) << line;
  }
  // The whole group is reset, the unused energy sum too.
  EXPECT_EQ(after.fetchPWTotal, 0);
  EXPECT_EQ(after.fetchDataCount, 0);
  EXPECT_EQ(after.fetchFailedCount, 0);
}

TEST_F(UploadTest, NonDiscretionaryTotalsWaitForAnotherStatistic) {
  AppLaunchStatsCumu& s = stats();
  s.nonDiscretionaryAdd(300, 7);
  s.newCycleWithApps({});
  s.nonDiscretionaryAdd(200, 3);
  s.newCycleWithApps({});
  AppLaunchStatsCumu::Snapshot carried = s.snapshot();
  EXPECT_TRUE(metrics_->entries().empty());
  EXPECT_EQ(carried.hasStats, 0);
  EXPECT_EQ(carried.totalNonDiscDownload, 500);

  s.backgroundSucceeds(-7, 3);
  s.backgroundSucceeds(0, 0);
  s.newCycleWithApps({});
  s.snapshot();
  const std::vector<Entry> expected = {
      {Op::kSet, "com.vorn.Kelo.totalNonDISCData", 500},
      {Op::kSet, "com.vorn.Kelo.totalNonDISCEnergy", 10},
      {Op::kSet, "com.vorn.Kelo.avgBGDownloadSize", -3},
      {Op::kSet, "com.vorn.Kelo.avgBGEnergy", 1},
  };
  EXPECT_EQ(metrics_->entries(), expected);
  EXPECT_EQ(s.snapshot().totalNonDiscDownload, 0);
}

TEST_F(UploadTest, NewCycleReplacesThePredictionsAndMovesTheStart) {
  AppLaunchStatsCumu& s = stats();
  EXPECT_EQ(s.pastCycle(), nullptr);
  s.replacePredictionAtZone({Value::integer(1)}, 0);  // no cycle yet: ignored
  EXPECT_EQ(s.pastCycle(), nullptr);

  sandbox_.advance(30);
  s.newCycleWithApps({Value::string("a"), Value::string("b"), Value::string("c")});
  s.snapshot();
  EXPECT_EQ(s.cycleStart(), sandbox_.now());
  const auto first = s.pastCycle();

  s.replacePredictionAtZone({Value::integer(7), Value::integer(8)}, 1);
  for (int64_t bad : {int64_t{3}, int64_t{-1}, int64_t{1} << 31, (int64_t{1} << 32) + 1}) {
    s.replacePredictionAtZone({Value::integer(9)}, bad);
  }
  const AppLaunchStatsCumu::Predictions expected = {
      Value::string("a"), Value::array({Value::integer(7), Value::integer(8)}),
      Value::string("c")};
  EXPECT_EQ(*s.pastCycle(), expected);
  // A snapshot handed out earlier does not change under its holder.
  EXPECT_EQ((*first)[1], Value::string("b"));

  s.setPastCycle(nullptr);
  s.newCycleWithApps({Value::boolean(true)});
  s.snapshot();
  EXPECT_EQ(*s.pastCycle(), AppLaunchStatsCumu::Predictions{Value::boolean(true)});
  EXPECT_TRUE(metrics_->entries().empty());  // nothing happened, nothing uploaded
}

TEST_F(UploadTest, UploadEmptiesAnExistingPredictionList) {
  AppLaunchStatsCumu& s = stats();
  s.newCycleWithApps({Value::string("a")});
  s.fetchAttemptIncrement();
  s.pushAttemptIncrement();
  s.snapshot();
  sandbox_.advance(86401);
  s.pushAttemptIncrement();  // the day closes without a new prediction cycle
  s.snapshot();
  ASSERT_NE(s.pastCycle(), nullptr);
  EXPECT_TRUE(s.pastCycle()->empty());
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.any.triggered"), 1);
}

}  // namespace
}  // namespace kelo::test
