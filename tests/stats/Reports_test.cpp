#include "kelo/stats.h"
#include "platform/Notify.h"
#include "tests/stats/StatsTesting.h"
#include "tests/support/ChildProcess.h"

namespace kelo::test {
namespace {

class ReportsTest : public StatsTest {
 protected:
  // Starts listening and waits until the registration ran.
  void startCycle() {
    stats().newCycleWithApps({});
    ASSERT_NE(stats().snapshot().BGReportToken, 0);
  }
  bool waitForDownloads(int32_t count) {
    return eventually([&] { return stats().snapshot().totalBGDownloads == count; });
  }
};

TEST_F(ReportsTest, ReportsBeforeTheFirstCycleAreLost) {
  reportCumuBackgroundDownload(100, 5);
  startCycle();
  const int32_t token = stats().snapshot().BGReportToken;
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(stats().snapshot().totalBGDownloads, 0);

  stats().newCycleWithApps({});  // later cycles keep the one registration
  EXPECT_EQ(stats().snapshot().BGReportToken, token);
  reportCumuBackgroundDownload(100, 5);
  ASSERT_TRUE(waitForDownloads(1));
  const Snapshot s = stats().snapshot();
  EXPECT_EQ(s.avgDownloadsize, 100);
  EXPECT_EQ(s.avgPWConsumed, 5);
  EXPECT_EQ(s.hasStats, AppLaunchStatsCumu::kFlagBackgroundDownload);
}

TEST_F(ReportsTest, EachTypeReachesItsSumsAndOthersAreOnlyLogged) {
  enableLog();
  startCycle();
  reportCumuBackgroundDownload(0xFFFFFFFFFFF, 0xFFFF);  // the widest fields
  ASSERT_TRUE(waitForDownloads(1));
  reportCumuNonDiscretionaryBackgroundDownload(300, 7);
  ASSERT_TRUE(eventually([&] { return stats().snapshot().totalNonDiscDownload == 300; }));

  // A zero state wakes the handler but is not even logged. Give it its delivery before the
  // next post could coalesce with it.
  int token = 0;
  ASSERT_EQ(platform::notify_register_check("com.vorn.Kelo.CUMUNotificationReport", &token), 0u);
  ASSERT_EQ(platform::notify_set_state(token, 0), 0u);
  ASSERT_EQ(platform::notify_post("com.vorn.Kelo.CUMUNotificationReport"), 0u);
  platform::notify_cancel(token);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  reportCumu(3, 4, 5);
  ASSERT_TRUE(eventually([&] { return logCount("notification rcv on type 3, data 4, pw 5"); }));

  const Snapshot s = stats().snapshot();
  EXPECT_EQ(s.avgDownloadsize, 0xFFFFFFFFFFF);
  EXPECT_EQ(s.avgPWConsumed, 0xFFFF);
  EXPECT_EQ(s.totalBGDownloads, 1);
  EXPECT_EQ(s.totalNonDiscDownload, 300);
  EXPECT_EQ(s.totalNonDiscEnergy, 7);
  EXPECT_EQ(logTexts(), (Lines{"notification rcv on type 1, data 17592186044415, pw 65535",
                               "notification rcv on type 2, data 300, pw 7",
                               "notification rcv on type 3, data 4, pw 5"}));
}

TEST_F(ReportsTest, AReportFromAnotherProcessArrives) {
  startCycle();
  ChildProcess reporter([] {
    reportCumuBackgroundDownload(4242, 17);
    return 0;
  });
  reporter.go();
  ASSERT_EQ(reporter.wait(), 0);
  ASSERT_TRUE(waitForDownloads(1));
  EXPECT_EQ(stats().snapshot().avgDownloadsize, 4242);
  EXPECT_EQ(stats().snapshot().avgPWConsumed, 17);
}

}  // namespace
}  // namespace kelo::test
