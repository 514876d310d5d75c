#include <cstdint>
#include <limits>

#include "tests/stats/StatsTesting.h"

namespace kelo::test {
namespace {

using Snapshot = AppLaunchStatsCumu::Snapshot;

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
  constexpr int32_t kMax32 = std::numeric_limits<int32_t>::max();
  constexpr int64_t kMin64 = std::numeric_limits<int64_t>::min();
  stats().fetchDataCount(-10);
  stats().fetchDataCount(std::numeric_limits<int32_t>::min());
  stats().fetchCountUpdate(kMax32);
  stats().fetchCountUpdate(1);
  stats().fetchPWCount(kMax32);
  stats().fetchPWCount(2);
  stats().fetchTimeUpdate(std::numeric_limits<int64_t>::max());
  stats().fetchTimeUpdate(1);
  stats().backgroundSucceeds(100, kMin64);
  stats().backgroundSucceeds(5, -1);
  stats().nonDiscretionaryAdd(std::numeric_limits<uint64_t>::max(), uint64_t{1} << 63);
  stats().nonDiscretionaryAdd(2, 0);
  const Snapshot s = stats().snapshot();
  EXPECT_EQ(s.fetchDataTotal, -10 + int64_t{std::numeric_limits<int32_t>::min()});
  EXPECT_EQ(s.fetchDataCount, 2);
  EXPECT_EQ(s.fetchGiven, std::numeric_limits<int32_t>::min());
  EXPECT_EQ(s.fetchPWTotal, std::numeric_limits<int32_t>::min() + 1);
  EXPECT_EQ(s.fetchUpdateTimeTotal, kMin64);
  EXPECT_EQ(s.fetchUpdateTimeCount, 2);
  EXPECT_EQ(s.avgDownloadsize, 105);
  EXPECT_EQ(s.avgPWConsumed, std::numeric_limits<int64_t>::max());
  EXPECT_EQ(s.totalBGDownloads, 2);
  EXPECT_EQ(s.totalNonDiscDownload, 1);
  EXPECT_EQ(s.totalNonDiscEnergy, kMin64);
  EXPECT_EQ(s.hasStats,
            AppLaunchStatsCumu::kFlagFetchCount | AppLaunchStatsCumu::kFlagBackgroundDownload);
}

TEST_F(StatsTest, OnlyAPushAttemptPastExactly86400SecondsClosesTheDay) {
  const double start = stats().cycleStart();
  EXPECT_EQ(start, sandbox_.now());
  stats().pushAttemptIncrement();
  stats().snapshot();  // the task reads the clock: let it run before the clock moves
  sandbox_.setNow(start + 86400);
  stats().pushAttemptIncrement();
  stats().snapshot();
  sandbox_.setNow(start + 86401);
  stats().fetchAttemptIncrement();  // fetch attempts never close a day
  stats().snapshot();
  EXPECT_TRUE(metrics_->entries().empty());
  EXPECT_EQ(stats().cycleStart(), start);

  stats().pushAttemptIncrement();
  const Snapshot s = stats().snapshot();
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.push.total_requests"), 3);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.fetch.any.triggered"), 1);
  EXPECT_EQ(s.pushAttempt, 0);
  EXPECT_EQ(s.hasStats, 0);
  EXPECT_EQ(stats().cycleStart(), start + 86401);

  // The next day is measured from the moved start.
  metrics_->clear();
  sandbox_.setNow(start + 86401 + 86400);
  stats().pushAttemptIncrement();
  stats().snapshot();
  EXPECT_TRUE(metrics_->entries().empty());
}

}  // namespace
}  // namespace kelo::test
