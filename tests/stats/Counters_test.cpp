#include <cstdint>
#include <limits>
#include <string>

#include "tests/stats/StatsTesting.h"

namespace kelo::test {
namespace {

TEST_F(StatsTest, EventsLandInTheirSlotAndMinute) {
  stats().setCollectLaunchStats();
  struct Case {
    double seconds;
    int slot, minute;  // slot -1: rejected
  };
  const Case cases[] = {
      {-899, 0, 0},  {-10, 0, 0},     {59.9, 0, 0},   {60, 0, 1},    {905, 1, 0},
      {1799, 1, 14}, {86399, 95, 14}, {86400, -1, 0}, {-900, -1, 0}, {1e12, -1, 0},
  };
  for (const Case& c : cases) {
    const std::string app = "app" + std::to_string(c.seconds);
    launchAt(app, c.seconds);
    prewarmAt(app, c.seconds);
    AppLaunchStatsCumu::SlotArray expected{};  // a rejected first event still leaves zeros
    if (c.slot >= 0) expected[c.slot] = static_cast<uint16_t>(1u << c.minute);
    EXPECT_EQ(stats().launchSlots(app), expected) << c.seconds;
    EXPECT_EQ(stats().prewarmSlots(app), expected) << c.seconds;
  }
}

TEST_F(StatsTest, RecordingLogsEachEventAndOnlyLaunchesSetTheFlag) {
  enableLog();
  launchAt("a", 905);  // collection is off: ignored
  EXPECT_EQ(stats().snapshot().launchApps, 0u);
  stats().setCollectLaunchStats();
  prewarmAt("a", 1799);
  launchAt("a", 86400);
  EXPECT_EQ(stats().snapshot().hasStats, 0);
  launchAt("a", 905);
  launchAt("a", 905 + 180);
  launchAt("a", 905);
  prewarmAt("a", -900);
  EXPECT_EQ(stats().launchSlots("a").value()[1], 0b1001);
  EXPECT_EQ(stats().snapshot().hasStats, AppLaunchStatsCumu::kFlagLaunch);
  EXPECT_EQ(logTexts(), (Lines{"prewarm a diff 1799, minute val 16384 (16384)",
                               "weird diff 86400 (2025-11-21 10:56:00 +0000)",
                               "app launch a diff 905, val 1 (1)",
                               "app launch a diff 1085, val 9 (8)",
                               "app launch a diff 905, val 9 (1)",
                               "weird diff -900 (2025-11-21 10:56:00 +0000)"}));
}

TEST_F(StatsTest, DenialCountsOneReasonInPriorityOrder) {
  struct Case {
    bool a, b, wifi, cell, ignore;
    int32_t noData, noPW, poorCell;
  };
  const Case cases[] = {
      {false, false, false, false, false, 1, 0, 0}, {false, true, true, true, true, 1, 0, 0},
      {true, false, false, false, false, 0, 1, 0},  {true, false, true, true, true, 0, 1, 0},
      {true, true, false, false, false, 0, 0, 1},   {true, true, true, false, false, 0, 0, 0},
      {true, true, false, true, false, 0, 0, 0},    {true, true, false, false, true, 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.a << c.b << c.wifi << c.cell << c.ignore);
    const Snapshot before = stats().snapshot();
    stats().fetchDeniedBecause(c.a, c.b, c.wifi, c.cell, c.ignore);
    stats().pushDeniedBecause(c.a, c.b, c.wifi, c.cell, c.ignore);
    stats().pushDenied();  // a separate entry: the same event counts twice
    const Snapshot after = stats().snapshot();
    EXPECT_EQ(after.fetchDenied - before.fetchDenied, 1);
    EXPECT_EQ(after.fetchDeniedNoData - before.fetchDeniedNoData, c.noData);
    EXPECT_EQ(after.fetchDeniedNoPW - before.fetchDeniedNoPW, c.noPW);
    EXPECT_EQ(after.fetchDeniedPoorCell - before.fetchDeniedPoorCell, c.poorCell);
    EXPECT_EQ(after.pushDenied - before.pushDenied, 2);
    EXPECT_EQ(after.pushDeniedNoData - before.pushDeniedNoData, c.noData);
    EXPECT_EQ(after.pushDeniedNoPW - before.pushDeniedNoPW, c.noPW);
    EXPECT_EQ(after.pushDeniedPoorCell - before.pushDeniedPoorCell, c.poorCell);
    EXPECT_EQ(after.hasStats, 0);
  }
}

TEST_F(StatsTest, SumsKeepTheirSignAndWrapAtTheirWidth) {
  using I32 = std::numeric_limits<int32_t>;
  using I64 = std::numeric_limits<int64_t>;
  stats().fetchDataCount(-10);
  stats().fetchDataCount(I32::min());
  stats().fetchCountUpdate(I32::max());
  stats().fetchCountUpdate(1);
  stats().fetchPWCount(I32::max());
  stats().fetchPWCount(2);
  stats().fetchTimeUpdate(I64::max());
  stats().fetchTimeUpdate(1);
  stats().backgroundSucceeds(100, I64::min());
  stats().backgroundSucceeds(5, -1);
  stats().nonDiscretionaryAdd(std::numeric_limits<uint64_t>::max(), uint64_t{1} << 63);
  stats().nonDiscretionaryAdd(2, 0);
  const Snapshot s = stats().snapshot();
  EXPECT_EQ(s.fetchDataTotal, -10 + int64_t{I32::min()});
  EXPECT_EQ(s.fetchDataCount, 2);
  EXPECT_EQ(s.fetchGiven, I32::min());
  EXPECT_EQ(s.fetchPWTotal, I32::min() + 1);
  EXPECT_EQ(s.fetchUpdateTimeTotal, I64::min());
  EXPECT_EQ(s.fetchUpdateTimeCount, 2);
  EXPECT_EQ(s.avgDownloadsize, 105);
  EXPECT_EQ(s.avgPWConsumed, I64::max());
  EXPECT_EQ(s.totalBGDownloads, 2);
  EXPECT_EQ(s.totalNonDiscDownload, 1);
  EXPECT_EQ(s.totalNonDiscEnergy, I64::min());
  EXPECT_EQ(s.hasStats,
            AppLaunchStatsCumu::kFlagFetchCount | AppLaunchStatsCumu::kFlagBackgroundDownload);
}

TEST_F(StatsTest, OnlyAPushAttemptPastExactly86400SecondsClosesTheDay) {
  const double start = stats().cycleStart();
  EXPECT_EQ(start, sandbox_.now());
  auto attemptAt = [&](double t, bool push) {
    sandbox_.setNow(t);
    push ? stats().pushAttemptIncrement() : stats().fetchAttemptIncrement();
    return stats().snapshot();  // the task reads the clock: let it run before the clock moves
  };
  attemptAt(start, true);
  attemptAt(start + 86400, true);
  attemptAt(start + 86401, false);  // fetch attempts never close a day
  EXPECT_TRUE(metrics_->entries().empty());
  EXPECT_EQ(stats().cycleStart(), start);

  const Snapshot s = attemptAt(start + 86401, true);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.push.total_requests"), 3);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.any.triggered"), 1);
  EXPECT_EQ(s.pushAttempt, 0);
  EXPECT_EQ(s.hasStats, 0);
  EXPECT_EQ(stats().cycleStart(), start + 86401);

  metrics_->clear();  // the next day is measured from the moved start
  attemptAt(start + 86401 + 86400, true);
  EXPECT_TRUE(metrics_->entries().empty());
}

}  // namespace
}  // namespace kelo::test
