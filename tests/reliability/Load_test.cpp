#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kelo/AmpvexStub.h"
#include "kelo/AppLaunchStatsCumu.h"
#include "kelo/KeloConfigurator.h"
#include "kelo/KeloLogger.h"
#include "kelo/kelo.h"
#include "tests/config/ConfigTestSupport.h"
#include "tests/logging/LogFiles.h"
#include "tests/support/InMemoryMetrics.h"
#include "tests/support/InMemoryPowerMonitor.h"

namespace kelo {
namespace {

using namespace std::chrono_literals;
using Monitor = test::InMemoryPowerMonitor;

constexpr int kThreads = 8;
constexpr int kIterations = 400;
constexpr auto kTimeBudget = 3s;  // a slow (sanitized) build stops early, counts stay exact
constexpr auto kDeadlockLimit = 60s;

class LoadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::Overrides o;
    o.metrics = metrics_;
    o.powerMonitor = monitor_;
    sandbox_.install(o);
    test::installShippedBundle(sandbox_);
    monitor_->setReport(Monitor::report(3000, 1763700000, {{"com.load.0", 1, 10},
                                                            {"com.load.1", 4, 20},
                                                            {"com.load.2", 5, 30}}));
  }

  // One iteration of thread `t`: every operation comes round to every thread. Lines sent to the
  // detailed logger are added to `lines`.
  void step(int t, int n, std::vector<std::string>& lines) {
    const std::string app = "com.load." + std::to_string((t + n) % 5);
    const std::string tag = "t" + std::to_string(t) + " n" + std::to_string(n);
    AppLaunchStatsCumu* stats = AppLaunchStatsCumu::sharedInstance();
    switch ((t + n) % 7) {
      case 0:
        KELO_CLOG("clog t%d n%d", t, n);
        lines.push_back("clog " + tag);
        KELO_CLOG_MASK(3, "mask t%d n%d", t, n);
        lines.push_back("mask " + tag);
        KELO_ConsoleLog(("console %n%s " + tag).c_str());
        lines.push_back("console %n%s " + tag);
        break;
      case 1:
        // A reload racing a lookup may show the bundle's base value before the model entry
        // replaces it again, never anything else.
        for (const auto& [key, values] : budgets_) {
          const int64_t v = KeloConfigurator::sharedInstance()->getStateFor(key);
          if (v != values.first && v != values.second) ++wrongReadings_;
        }
        if (getStateForC("noSuchKey") != -1 || getStateForC("\xff\xfe") != 0) ++wrongReadings_;
        break;
      case 2:
        energyStartLogging(app.c_str(), 1, static_cast<uint64_t>(n));
        energyStopLogging(app.c_str(), 1, static_cast<uint64_t>(n));
        AmpvexStub::instance()->energyStartLogging(app.c_str(), 4, static_cast<uint64_t>(n));
        energyEvents_ += 3;
        break;
      case 3:
        energyConsumedRefresh();
        energyConsumedForBackgroundDownload();
        AmpvexStub::instance()->energyConsumedForFetch();
        AmpvexStub::instance()->getBatteryCapacity();
        break;
      case 4:
        reportCumuBackgroundDownload(4096, 3);
        reportCumuNonDiscretionaryBackgroundDownload(512, 1);
        break;
      case 5:
        stats->fetchAttemptIncrement();
        stats->pushAttemptIncrement();
        ++attempts_;
        stats->fetchDeniedBecause(n % 2 == 0, true, false, false, false);
        stats->fetchDataCount(n);
        stats->backgroundSucceeds(100, 2);
        stats->appFGLaunch(app);
        stats->appPrewarm(app);
        break;
      default:
        stats->snapshot();
        stats->pastCycle();
        stats->populatePredictZones([](const std::string&, uint64_t slot) {
          return static_cast<int32_t>(slot % 9);
        });
        stats->populatePrewarmZones([](const std::string&) { return true; });
        break;
    }
    // Now and then the heavy operations: a dump, a reload, an upload, the loggers' switches.
    if (n % 100 != 99) return;
    switch ((t + n / 100) % 4) {
      case 0:
        KeloLogger::instance()->dumpAllLogs();
        break;
      case 1:
        KeloConfigurator::sharedInstance()->reloadBundleFromDisk();
        break;
      case 2:
        stats->newCycleWithApps({Value::string(app)});
        break;
      default:
        KELO_CLOGMODE(true);
        KeloLogger::instance(1)->setLoggingMode(n % 200 == 99);
    }
  }

  test::Sandbox sandbox_;
  std::shared_ptr<test::InMemoryMetrics> metrics_ = std::make_shared<test::InMemoryMetrics>();
  std::shared_ptr<Monitor> monitor_ = std::make_shared<Monitor>();
  std::map<std::string, std::pair<int64_t, int64_t>> budgets_;  // key: (model entry, base)
  std::atomic<int> wrongReadings_{0}, energyEvents_{0}, attempts_{0};
};

TEST_F(LoadTest, EightThreadsCallingEverythingLoseNothingAndTearNothing) {
  const Value info = test::Sandbox::readJson(test::shippedBundleDirectory() + "/Info.json");
  budgets_["globalPowerBudget"] = {
      getStateForC("globalPowerBudget"),
      info.find("commonDefaults")->find("globalPowerBudget")->integerValue()};
  budgets_["fetchAppPowerBudget"] = {
      getStateForC("fetchAppPowerBudget"),
      info.find("fetchBudget")->find("fetchAppPowerBudget")->integerValue()};
  ASSERT_GT(budgets_["globalPowerBudget"].first, 0);
  KeloLogger* logger = KeloLogger::instance();
  logger->addDataSource(KeloConfigurator::sharedInstance());
  logger->addDataSource(AmpvexStub::instance());
  KELO_CLOGMODE(true);
  logger->logToFileCString(nullptr);  // the switch ran
  AppLaunchStatsCumu* stats = AppLaunchStatsCumu::sharedInstance();
  stats->setCollectLaunchStats();
  stats->newCycleWithApps({});

  std::vector<std::vector<std::string>> lines(kThreads);
  std::mutex mutex;
  std::condition_variable cv;
  int finished = 0;
  const auto stopAt = std::chrono::steady_clock::now() + kTimeBudget;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int n = 0; n < kIterations && std::chrono::steady_clock::now() < stopAt; ++n) {
        step(t, n, lines[t]);
      }
      std::lock_guard<std::mutex> lock(mutex);
      ++finished;
      cv.notify_all();
    });
  }
  {
    std::unique_lock<std::mutex> lock(mutex);
    if (!cv.wait_for(lock, kDeadlockLimit, [&] { return finished == kThreads; })) {
      // Joining would hang the test too: end the process with the verdict.
      std::fprintf(stderr, "deadlock: %d of %d threads finished\n", finished, kThreads);
      std::_Exit(1);
    }
  }
  for (std::thread& thread : threads) thread.join();

  // The closing upload, then every queue drained.
  stats->newCycleWithApps({});
  stats->snapshot();
  AmpvexStub::instance()->getBatteryCapacity();
  logger->logToFileCString(nullptr);

  EXPECT_EQ(wrongReadings_.load(), 0);
  for (const auto& [key, values] : budgets_) {
    EXPECT_EQ(getStateForC(key.c_str()), values.first) << "once the reloads are over";
  }
  // Fetch attempts are set per cycle, push attempts added: both sum to the calls made.
  EXPECT_GT(attempts_.load(), 0);
  int64_t fetchSum = 0;
  for (const auto& e : metrics_->entries()) {
    if (e.key == "com.vorn.Kelo.fetch.any.triggered") fetchSum += e.value;
  }
  EXPECT_EQ(fetchSum, attempts_.load());
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.push.total_requests"), attempts_.load());
  EXPECT_EQ(static_cast<int>(monitor_->events().size()), energyEvents_.load());

  // Every line sent is in the live log exactly once.
  std::map<std::string, int> seen;
  for (const std::string& text : test::lineTexts(
           sandbox_.homePath() + "/Library/Logs/KeloLoggingDetailed.kelotest")) {
    ++seen[text];
  }
  size_t sent = 0;
  for (const std::vector<std::string>& own : lines) {
    for (const std::string& line : own) EXPECT_EQ(seen[line], 1) << line;
    sent += own.size();
  }
  EXPECT_GT(sent, 0u);
  EXPECT_TRUE(sandbox_.consoleLines().empty());
}

}  // namespace
}  // namespace kelo
