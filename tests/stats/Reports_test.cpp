#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kelo/stats.h"
#include "platform/Notify.h"
#include "tests/stats/StatsTesting.h"

extern char** environ;

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

// Run only as the child of the next test: reports one download from a separate process.
TEST(ReportsChild, DISABLED_SendsOneReport) {
  const char* root = std::getenv("KELO_TEST_REPORT_ROOT");
  ASSERT_NE(root, nullptr);
  platform::Overrides o;
  o.deviceRoot = o.homeDirectory = root;
  platform::installOverrides(o);
  reportCumuBackgroundDownload(4242, 17);
}

TEST_F(ReportsTest, AReportFromAnotherProcessArrives) {
  startCycle();
  std::vector<std::string> args = {"/proc/self/exe",
                                   "--gtest_filter=ReportsChild.DISABLED_SendsOneReport",
                                   "--gtest_also_run_disabled_tests"};
  std::vector<std::string> env = {"KELO_TEST_REPORT_ROOT=" + sandbox_.rootPath()};
  for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
  std::vector<char*> argv, envp;
  for (std::string& a : args) argv.push_back(a.data());
  for (std::string& e : env) envp.push_back(e.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  pid_t pid = 0;
  ASSERT_EQ(::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), envp.data()), 0);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_TRUE(waitForDownloads(1));
  EXPECT_EQ(stats().snapshot().avgDownloadsize, 4242);
  EXPECT_EQ(stats().snapshot().avgPWConsumed, 17);
}

}  // namespace
}  // namespace kelo::test
