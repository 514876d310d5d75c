#include <cstdint>
#include <limits>

#include "tests/stats/StatsTesting.h"

namespace kelo::test {
namespace {

class CountersTest : public StatsTest {};

struct DenialCase {
  bool a, b, wifi, cell, ignore;
  int32_t noData, noPW, poorCell;
};

TEST_F(CountersTest, DenialCountsOneReasonInPriorityOrder) {
  const DenialCase cases[] = {
      {false, false, false, false, false, 1, 0, 0},  // data before energy
      {false, true, true, true, true, 1, 0, 0},
      {true, false, false, false, false, 0, 1, 0},
      {true, false, true, true, true, 0, 1, 0},  // energy before the link
      {true, true, false, false, false, 0, 0, 1},
      {true, true, true, false, false, 0, 0, 0},
      {true, true, false, true, false, 0, 0, 0},
      {true, true, false, false, true, 0, 0, 0},
  };
  for (const DenialCase& c : cases) {
    SCOPED_TRACE(testing::Message() << c.a << c.b << c.wifi << c.cell << c.ignore);
    const AppLaunchStatsCumu::Snapshot before = stats().snapshot();
    stats().fetchDeniedBecause(c.a, c.b, c.wifi, c.cell, c.ignore);
    stats().pushDeniedBecause(c.a, c.b, c.wifi, c.cell, c.ignore);
    stats().pushDeniedBecause(c.a, c.b, c.wifi, c.cell, c.ignore);
    const AppLaunchStatsCumu::Snapshot after = stats().snapshot();
    EXPECT_EQ(after.fetchDenied - before.fetchDenied, 1);
    EXPECT_EQ(after.fetchDeniedNoData - before.fetchDeniedNoData, c.noData);
    EXPECT_EQ(after.fetchDeniedNoPW - before.fetchDeniedNoPW, c.noPW);
    EXPECT_EQ(after.fetchDeniedPoorCell - before.fetchDeniedPoorCell, c.poorCell);
    EXPECT_EQ(after.pushDenied - before.pushDenied, 2);
    EXPECT_EQ(after.pushDeniedNoData - before.pushDeniedNoData, 2 * c.noData);
    EXPECT_EQ(after.pushDeniedNoPW - before.pushDeniedNoPW, 2 * c.noPW);
    EXPECT_EQ(after.pushDeniedPoorCell - before.pushDeniedPoorCell, 2 * c.poorCell);
    EXPECT_EQ(after.hasStats, 0);
  }
}

TEST_F(CountersTest, PlainDenialsAndAttemptsCountIndependently) {
  stats().fetchDeniedBecause(false, true, false, false, false);
  stats().fetchDenied();
  stats().pushDenied();
  stats().fetchAttemptIncrement();
  stats().fetchAttemptIncrement();
  stats().fetchFailedUpdate();
  stats().forceReleaseCount();
  stats().forceReleaseCount();
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_EQ(s.fetchDenied, 2);  // the same event reported both ways counts twice
  EXPECT_EQ(s.fetchDeniedNoData, 1);
  EXPECT_EQ(s.pushDenied, 1);
  EXPECT_EQ(s.pushDeniedNoData, 0);
  EXPECT_EQ(s.fetchAttempt, 2);
  EXPECT_EQ(s.fetchFailedCount, 1);
  EXPECT_EQ(s.forceRelease, 2);
  EXPECT_EQ(s.hasStats, AppLaunchStatsCumu::kFlagFetchAttempt);
}

TEST_F(CountersTest, SumsKeepTheirSignsAndCounts) {
  stats().fetchDataCount(-10);
  stats().fetchDataCount(std::numeric_limits<int32_t>::min());
  stats().fetchTimeUpdate(-5);
  stats().fetchTimeUpdate(8);
  stats().fetchPWCount(-3);
  stats().fetchCountUpdate(4);
  stats().backgroundSucceeds(100, 5);
  stats().nonDiscretionaryAdd(300, 7);
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_EQ(s.fetchDataTotal, -10 + static_cast<int64_t>(std::numeric_limits<int32_t>::min()));
  EXPECT_EQ(s.fetchDataCount, 2);
  EXPECT_EQ(s.fetchUpdateTimeTotal, 3);
  EXPECT_EQ(s.fetchUpdateTimeCount, 2);
  EXPECT_EQ(s.fetchPWTotal, -3);
  EXPECT_EQ(s.fetchGiven, 4);
  EXPECT_EQ(s.avgDownloadsize, 100);
  EXPECT_EQ(s.avgPWConsumed, 5);
  EXPECT_EQ(s.totalBGDownloads, 1);
  EXPECT_EQ(s.totalNonDiscDownload, 300);
  EXPECT_EQ(s.totalNonDiscEnergy, 7);
  EXPECT_EQ(s.hasStats,
            AppLaunchStatsCumu::kFlagFetchCount | AppLaunchStatsCumu::kFlagBackgroundDownload);
}

TEST_F(CountersTest, CountersWrapAtTheirWidth) {
  constexpr int32_t kMax32 = std::numeric_limits<int32_t>::max();
  constexpr int64_t kMax64 = std::numeric_limits<int64_t>::max();
  stats().fetchCountUpdate(kMax32);
  stats().fetchCountUpdate(1);
  stats().fetchPWCount(kMax32);
  stats().fetchPWCount(2);
  stats().fetchTimeUpdate(kMax64);
  stats().fetchTimeUpdate(1);
  stats().backgroundSucceeds(kMax64, std::numeric_limits<int64_t>::min());
  stats().backgroundSucceeds(1, -1);
  stats().nonDiscretionaryAdd(std::numeric_limits<uint64_t>::max(), uint64_t{1} << 63);
  stats().nonDiscretionaryAdd(2, 0);
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_EQ(s.fetchGiven, std::numeric_limits<int32_t>::min());
  EXPECT_EQ(s.fetchPWTotal, std::numeric_limits<int32_t>::min() + 1);
  EXPECT_EQ(s.fetchUpdateTimeTotal, std::numeric_limits<int64_t>::min());
  EXPECT_EQ(s.avgDownloadsize, std::numeric_limits<int64_t>::min());
  EXPECT_EQ(s.avgPWConsumed, kMax64);
  EXPECT_EQ(s.totalNonDiscDownload, 1);
  EXPECT_EQ(s.totalNonDiscEnergy, std::numeric_limits<int64_t>::min());
}

TEST_F(CountersTest, APushAttemptClosesTheDayOnlyPastExactly86400Seconds) {
  const double start = stats().cycleStart();
  EXPECT_EQ(start, sandbox_.now());
  stats().pushAttemptIncrement();
  stats().snapshot();  // the task reads the clock: let it run before the clock moves
  sandbox_.setNow(start + 86400);
  stats().pushAttemptIncrement();
  stats().snapshot();
  EXPECT_TRUE(metrics_->entries().empty());
  EXPECT_EQ(stats().cycleStart(), start);

  sandbox_.setNow(start + 86401);
  stats().pushAttemptIncrement();
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.push.total_requests"), 3);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.totalNonDISCData"), 0);
  EXPECT_EQ(s.pushAttempt, 0);
  EXPECT_EQ(s.hasStats, 0);
  EXPECT_EQ(s.cycleStart, start + 86401);
  EXPECT_EQ(stats().cycleStart(), start + 86401);

  // The new day is measured from the moved start.
  metrics_->clear();
  sandbox_.setNow(start + 86401 + 86400);
  stats().pushAttemptIncrement();
  stats().snapshot();
  EXPECT_TRUE(metrics_->entries().empty());
}

TEST_F(CountersTest, OtherCountersNeverCloseTheDay) {
  const double start = stats().cycleStart();
  sandbox_.setNow(start + 5 * 86400);
  stats().fetchAttemptIncrement();
  stats().fetchCountUpdate(1);
  stats().backgroundSucceeds(1, 1);
  stats().fetchDeniedBecause(true, true, false, false, false);
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_TRUE(metrics_->entries().empty());
  EXPECT_EQ(s.cycleStart, start);
  EXPECT_EQ(s.fetchAttempt, 1);
}

TEST_F(CountersTest, OperationsFromManyThreadsAllCount) {
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this] {
      for (int i = 0; i < kEach; ++i) {
        stats().fetchAttemptIncrement();
        stats().fetchDataCount(2);
        stats().pushDeniedBecause(true, false, false, false, false);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  const AppLaunchStatsCumu::Snapshot s = stats().snapshot();
  EXPECT_EQ(s.fetchAttempt, kThreads * kEach);
  EXPECT_EQ(s.fetchDataTotal, 2 * kThreads * kEach);
  EXPECT_EQ(s.pushDeniedNoPW, kThreads * kEach);
}

}  // namespace
}  // namespace kelo::test
