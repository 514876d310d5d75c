#include <string>
#include <vector>

#include "tests/stats/StatsTesting.h"

namespace kelo::test {
namespace {

using Op = InMemoryMetrics::Op;

void appendZones(std::vector<InMemoryMetrics::Entry>& out, const std::string& prefix,
                 const std::vector<int64_t>& counts) {
  static const char* const kNames[] = {"Neg2HR", "Neg1HR", "Neg30M", "Neg15M", "Pos15M",
                                       "Pos30M", "Pos1HR", "Pos2HR", "None"};
  for (int zone = 0; zone < 9; ++zone) {
    out.push_back({Op::kSet, "com.vorn.Kelo." + prefix + kNames[zone], counts[zone]});
  }
}

// Every group present: every key, in order, with its own operation and value.
TEST_F(StatsTest, UploadWritesEveryKeyWithItsOperationAndResets) {
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
  s.fetchCountUpdate(1);
  for (int i = 0; i < 2; ++i) s.fetchFailedUpdate();
  s.fetchPWCount(10);
  for (int data : {-3, -3, -4}) s.fetchDataCount(data);
  s.fetchTimeUpdate(7);  // averages of one sample are uploaded too
  s.backgroundSucceeds(100, 5);
  s.backgroundSucceeds(51, 2);
  s.nonDiscretionaryAdd(1000, 20);
  // Launches in slots 0 and 3 after a prewarm in slot 0: Neg15M and Neg1HR, and one miss.
  s.setCollectLaunchStats();
  launchAt("app", 0);
  prewarmAt("app", 0);
  launchAt("app", at(3, 0));
  s.populatePredictZones([](const std::string&, uint64_t slot) { return slot == 0 ? 5 : 9; });
  s.populatePrewarmZones([](const std::string&) { return true; });
  s.newCycleWithApps({Value::string("next")});
  const Snapshot after = s.snapshot();
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
      {Op::kAdd, "com.vorn.Kelo.fetch.updates.given", 1},
      {Op::kAdd, "com.vorn.Kelo.fetch.updates.failed", 2},
      {Op::kAdd, "com.vorn.Kelo.fetch.updates.energy_used", 10},
      {Op::kAdd, "com.vorn.Kelo.fetch.updates.data_used", -3},  // -10 / 3 truncates to -3
      {Op::kAdd, "com.vorn.Kelo.fetch.updates.time", 7},
  };
  appendZones(expected, "predictHit", {0, 0, 0, 0, 0, 1, 0, 0, 0});
  appendZones(expected, "prewarmHit", {0, 1, 0, 1, 0, 0, 0, 0, 0});
  expected.push_back({Op::kSet, "com.vorn.Kelo.prewarmHit", 0});
  expected.push_back({Op::kAdd, "com.vorn.Kelo.prewarmMiss", 1});
  expected.push_back({Op::kSet, "com.vorn.Kelo.avgBGDownloadSize", 75});
  expected.push_back({Op::kSet, "com.vorn.Kelo.avgBGEnergy", 3});
  EXPECT_EQ(metrics_->entries(), expected);

  for (int64_t left :
       {int64_t{after.hasStats}, int64_t{after.fetchDenied}, int64_t{after.forceRelease},
        int64_t{after.pushDeniedPoorCell}, after.fetchDataTotal,
        int64_t{after.fetchUpdateTimeCount}, int64_t{after.prewarmMiss}, after.avgPWConsumed,
        int64_t{after.totalBGDownloads}, after.totalNonDiscEnergy}) {
    EXPECT_EQ(left, 0);
  }
  EXPECT_EQ(after.zoneCounts, AppLaunchStatsCumu::ZoneArray{});
  EXPECT_EQ(after.prewarmZoneCounts, AppLaunchStatsCumu::ZoneArray{});
  EXPECT_EQ(after.launchApps + after.prewarmApps, 0u);
  EXPECT_EQ(*s.pastCycle(), AppLaunchStatsCumu::Predictions{Value::string("next")});
  for (const char* line :
       {"fetch attempt=3, denied=8, noPW=2, noData=1, poorCell=4",
        "push attempt=6, denied=7, noPW=2, noData=1, poorCell=3", "Fetch given=1, failed=2",
        "Fetch avg energy count=10/1", "Fetch avg data count=-10/3", "Fetch avg time count=7/1"}) {
    EXPECT_EQ(logCount(line), 1u) << line;
  }
}

// Groups without their flag are neither written nor reset; averages need their divisor.
TEST_F(StatsTest, UploadSkipsGroupsWithoutTheirFlag) {
  enableLog();
  AppLaunchStatsCumu& s = stats();
  s.fetchCountUpdate(0);
  s.fetchFailedUpdate();
  s.fetchPWCount(9);
  s.fetchDataCount(10);
  s.pushDeniedBecause(false, false, false, false, false);  // no push attempt: flag 32 clear
  s.fetchDeniedBecause(true, true, false, false, false);   // no fetch attempt: flag 1 clear
  s.newCycleWithApps({Value::string("b")});
  Snapshot after = s.snapshot();
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.updates.given"), 0);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.updates.failed"), 1);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.updates.energy_used"), std::nullopt);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.updates.data_used"), 10);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.updates.time"), std::nullopt);
  EXPECT_EQ(metrics_->entries().size(), 5u);  // with the two non-discretionary totals
  EXPECT_EQ(logCount("Fetch given=0, failed=1"), 1u);
  EXPECT_EQ(logCount("Fetch avg data count=10/1"), 1u);
  EXPECT_EQ(logTexts().size(), 2u);
  EXPECT_EQ(after.fetchPWTotal, 0);  // the whole group is reset, the unused sum too
  EXPECT_EQ(after.pushDeniedNoData, 1);
  EXPECT_EQ(after.fetchDeniedPoorCell, 1);

  // A day closed by a push attempt takes the push group and empties the predictions.
  metrics_->clear();
  sandbox_.advance(86401);
  s.pushAttemptIncrement();
  after = s.snapshot();
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.push.denied.data_budget"), 1);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.denied"), std::nullopt);
  EXPECT_EQ(after.fetchDenied, 1);
  EXPECT_TRUE(s.pastCycle()->empty());
}

TEST_F(StatsTest, NonDiscretionaryTotalsWaitForAnotherStatistic) {
  AppLaunchStatsCumu& s = stats();
  s.nonDiscretionaryAdd(300, 7);
  s.newCycleWithApps({});
  s.nonDiscretionaryAdd(200, 3);
  s.newCycleWithApps({});  // nothing else to upload: the totals wait
  EXPECT_EQ(s.snapshot().totalNonDiscDownload, 500);
  EXPECT_TRUE(metrics_->entries().empty());

  s.backgroundSucceeds(-7, 3);
  s.backgroundSucceeds(0, 0);
  s.newCycleWithApps({});
  EXPECT_EQ(s.snapshot().totalNonDiscDownload, 0);
  EXPECT_EQ(metrics_->entries(), (std::vector<Entry>{
                                     {Op::kSet, "com.vorn.Kelo.totalNonDISCData", 500},
                                     {Op::kSet, "com.vorn.Kelo.totalNonDISCEnergy", 10},
                                     {Op::kSet, "com.vorn.Kelo.avgBGDownloadSize", -3},
                                     {Op::kSet, "com.vorn.Kelo.avgBGEnergy", 1},
                                 }));
}

TEST_F(StatsTest, NewCycleAndReplacementManageThePredictions) {
  AppLaunchStatsCumu& s = stats();
  s.replacePredictionAtZone({Value::integer(1)}, 0);  // no cycle yet: ignored
  EXPECT_EQ(s.pastCycle(), nullptr);

  sandbox_.advance(30);
  s.newCycleWithApps({Value::string("a"), Value::string("b"), Value::string("c")});
  s.snapshot();
  EXPECT_EQ(s.cycleStart(), sandbox_.now());
  const auto first = s.pastCycle();
  s.replacePredictionAtZone({Value::integer(7)}, 1);
  for (int64_t bad : {int64_t{3}, int64_t{-1}, int64_t{1} << 31, (int64_t{1} << 32) + 1}) {
    s.replacePredictionAtZone({Value::integer(9)}, bad);
  }
  EXPECT_EQ(*s.pastCycle(),
            (AppLaunchStatsCumu::Predictions{Value::string("a"), Value::array({Value::integer(7)}),
                                             Value::string("c")}));
  EXPECT_EQ((*first)[1], Value::string("b"));  // a snapshot handed out earlier stays as it was
}

}  // namespace
}  // namespace kelo::test
