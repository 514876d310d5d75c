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
#include "tests/support/Sandbox.h"

namespace kelo {
namespace {

using namespace std::chrono_literals;
using Monitor = test::InMemoryPowerMonitor;

constexpr int kThreads = 8;
constexpr int kIterations = 400;
constexpr auto kTimeBudget = 3s;    // a slow (sanitized) build stops early, counts stay exact
constexpr auto kDeadlockLimit = 60s;

struct Tally {
  std::vector<std::string> lines;  // every line it sent to the detailed logger
  int fetchAttempts = 0;
  int pushAttempts = 0;
  int energyEvents = 0;
  int wrongReadings = 0;
};

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

  // One iteration of thread `t`: every operation comes round to every thread.
  void step(int t, int n, Tally& tally) {
    const std::string app = "com.load." + std::to_string((t + n) % 5);
    char text[64];
    switch ((t + n) % 9) {
      case 0:
        std::snprintf(text, sizeof text, "clog t%d n%d", t, n);
        KELO_CLOG("clog t%d n%d", t, n);
        tally.lines.emplace_back(text);
        break;
      case 1:
        std::snprintf(text, sizeof text, "mask t%d n%d", t, n);
        KELO_CLOG_MASK(3, "mask t%d n%d", t, n);
        tally.lines.emplace_back(text);
        break;
      case 2:
        std::snprintf(text, sizeof text, "console t%d n%d %%n%%s", t, n);
        KELO_ConsoleLog(text);
        tally.lines.emplace_back(text);
        break;
      case 3: {
        // A reload is not guarded against lookups: one racing it may see the bundle's base
        // value before the model entry replaces it again, never anything else.
        const long long global = getStateForC("globalPowerBudget");
        const int64_t item = KeloConfigurator::sharedInstance()->getStateFor("fetchAppPowerBudget");
        if (global != globalBudget_ && global != baseGlobalBudget_) ++tally.wrongReadings;
        if (item != itemBudget_ && item != baseItemBudget_) ++tally.wrongReadings;
        if (getStateForC("noSuchKey") != -1) ++tally.wrongReadings;
        if (getStateForC("\xff\xfe") != 0) ++tally.wrongReadings;
        KeloConfigurator::sharedInstance()->appBlackMap();
        break;
      }
      case 4:
        energyStartLogging(app.c_str(), 1, static_cast<uint64_t>(n));
        energyStopLogging(app.c_str(), 1, static_cast<uint64_t>(n));
        AmpvexStub::instance()->energyStartLogging(app.c_str(), 4, static_cast<uint64_t>(n));
        tally.energyEvents += 3;
        break;
      case 5:
        energyConsumedRefresh();
        energyConsumedForBackgroundDownload();
        energyConsumedForNonDiscDownload();
        AmpvexStub::instance()->energyConsumedForFetch();
        AmpvexStub::instance()->energyConsumedForPush();
        AmpvexStub::instance()->getBatteryCapacity();
        break;
      case 6:
        reportCumu(1, 100, 2);
        reportCumuBackgroundDownload(4096, 3);
        reportCumuNonDiscretionaryBackgroundDownload(512, 1);
        break;
      case 7: {
        AppLaunchStatsCumu* stats = AppLaunchStatsCumu::sharedInstance();
        stats->fetchAttemptIncrement();
        stats->pushAttemptIncrement();
        ++tally.fetchAttempts;
        ++tally.pushAttempts;
        stats->fetchDeniedBecause(n % 2 == 0, true, false, false, false);
        stats->pushDeniedBecause(true, n % 2 == 0, false, false, false);
        stats->fetchCountUpdate(1);
        stats->fetchDataCount(n);
        stats->fetchPWCount(1);
        stats->fetchTimeUpdate(5);
        stats->backgroundSucceeds(100, 2);
        stats->nonDiscretionaryAdd(10, 1);
        stats->appFGLaunch(app);
        stats->appPrewarm(app);
        break;
      }
      case 8: {
        AppLaunchStatsCumu* stats = AppLaunchStatsCumu::sharedInstance();
        stats->snapshot();
        stats->launchSlots(app);
        stats->pastCycle();
        stats->populatePredictZones([](const std::string&, uint64_t slot) {
          return static_cast<int32_t>(slot % 9);
        });
        stats->populatePrewarmZones([](const std::string&) { return true; });
        break;
      }
    }
    // Now and then the heavy operations: a dump, a reload, an upload, the loggers' switches.
    if (n % 100 == 99) {
      switch ((t + n / 100) % 4) {
        case 0:
          KeloLogger::instance()->dumpAllLogs();
          break;
        case 1:
          KeloConfigurator::sharedInstance()->reloadBundleFromDisk();
          break;
        case 2:
          AppLaunchStatsCumu::sharedInstance()->newCycleWithApps({Value::string(app)});
          break;
        case 3:
          KELO_CLOGMODE(true);
          KeloLogger::instance(1)->setLoggingMode(n % 200 == 99);
          break;
      }
    }
  }

  test::Sandbox sandbox_;
  std::shared_ptr<test::InMemoryMetrics> metrics_ = std::make_shared<test::InMemoryMetrics>();
  std::shared_ptr<Monitor> monitor_ = std::make_shared<Monitor>();
  long long globalBudget_ = 0;
  long long itemBudget_ = 0;
  long long baseGlobalBudget_ = 0;  // before the model entry
  long long baseItemBudget_ = 0;
};

TEST_F(LoadTest, EightThreadsCallingEverythingLoseNothingAndTearNothing) {
  globalBudget_ = getStateForC("globalPowerBudget");
  itemBudget_ = getStateForC("fetchAppPowerBudget");
  ASSERT_GT(globalBudget_, 0);
  const Value info = platform::readJsonFile(test::shippedBundleDirectory() + "/Info.json");
  baseGlobalBudget_ = info.find("commonDefaults")->find("globalPowerBudget")->integerValue();
  baseItemBudget_ = info.find("fetchBudget")->find("fetchAppPowerBudget")->integerValue();
  KeloLogger* logger = KeloLogger::instance();
  logger->addDataSource(KeloConfigurator::sharedInstance());
  logger->addDataSource(AmpvexStub::instance());
  KELO_CLOGMODE(true);
  logger->logToFileCString(nullptr);  // the switch ran
  AppLaunchStatsCumu::sharedInstance()->setCollectLaunchStats();
  AppLaunchStatsCumu::sharedInstance()->newCycleWithApps({});

  std::vector<Tally> tallies(kThreads);
  std::mutex mutex;
  std::condition_variable cv;
  int finished = 0;
  const auto stopAt = std::chrono::steady_clock::now() + kTimeBudget;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int n = 0; n < kIterations && std::chrono::steady_clock::now() < stopAt; ++n) {
        step(t, n, tallies[t]);
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
  AppLaunchStatsCumu* stats = AppLaunchStatsCumu::sharedInstance();
  stats->newCycleWithApps({});
  stats->snapshot();
  AmpvexStub::instance()->getBatteryCapacity();
  logger->logToFileCString(nullptr);

  Tally total;  // what all threads did
  for (const Tally& t : tallies) {
    total.lines.insert(total.lines.end(), t.lines.begin(), t.lines.end());
    total.fetchAttempts += t.fetchAttempts;
    total.pushAttempts += t.pushAttempts;
    total.energyEvents += t.energyEvents;
    total.wrongReadings += t.wrongReadings;
  }
  EXPECT_EQ(total.wrongReadings, 0);
  EXPECT_EQ(getStateForC("globalPowerBudget"), globalBudget_) << "once the reloads are over";
  EXPECT_EQ(getStateForC("fetchAppPowerBudget"), itemBudget_);
  EXPECT_GT(total.fetchAttempts, 0);

  // Fetch attempts are set per cycle, push attempts added: both sum to the calls made.
  int64_t fetchSum = 0;
  for (const auto& e : metrics_->entriesFor("com.vorn.Kelo.fetch.any.triggered")) {
    fetchSum += e.value;
  }
  EXPECT_EQ(fetchSum, total.fetchAttempts);
  EXPECT_EQ(metrics_->valueOf("com.vorn.Kelo.push.total_requests"), total.pushAttempts);
  EXPECT_EQ(static_cast<int>(monitor_->events().size()), total.energyEvents);

  // Every line sent is in the live log exactly once, and every line there is whole.
  std::map<std::string, int> seen;
  for (const std::string& text : test::lineTexts(
           sandbox_.homePath() + "/Library/Logs/KeloLoggingDetailed.kelotest")) {
    ++seen[text];
  }
  int missing = 0, repeated = 0;
  for (const std::string& line : total.lines) {
    missing += seen[line] == 0;
    repeated += seen[line] > 1;
  }
  EXPECT_EQ(missing, 0) << "of " << total.lines.size() << " lines";
  EXPECT_EQ(repeated, 0);
  EXPECT_TRUE(sandbox_.consoleLines().empty());
}

}  // namespace
}  // namespace kelo
