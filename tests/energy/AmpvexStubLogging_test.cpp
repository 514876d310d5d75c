#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kelo/AmpvexStub.h"
#include "kelo/KeloLogger.h"
#include "kelo/energy.h"
#include "tests/energy/EnergyTestUtil.h"
#include "tests/support/InMemoryPowerMonitor.h"
#include "tests/support/Sandbox.h"

namespace kelo {
namespace {

using Monitor = test::InMemoryPowerMonitor;
using Lines = std::vector<std::string>;

constexpr double kDateD = 1763700000.0;  // 2025-11-21 04:40:00 UTC
constexpr double kDateE = 1763790000.0;

const std::vector<std::string_view> kEnergyLines = {
    "Ampvex", "number of apps", "updatePowerBudgetPool", "Deduct energy", "No Battery"};

class AmpvexStubLoggingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::Overrides overrides;
    overrides.powerMonitor = monitor_;
    sandbox_.install(overrides);
    test::writeEnergyConfiguration(sandbox_, 500, 100);
  }

  // The service, once its start-up tasks (the first refresh, the diff reset) ran.
  static AmpvexStub* start() {
    AmpvexStub* stub = AmpvexStub::instance();
    stub->getBatteryCapacity();
    return stub;
  }

  void refreshWith(std::optional<Value> report) {
    monitor_->setReport(std::move(report));
    AmpvexStub::instance()->energyConsumedRefresh();
    AmpvexStub::instance()->getBatteryCapacity();  // waits for the refresh
  }

  std::shared_ptr<Monitor> monitor_ = std::make_shared<Monitor>();
  test::Sandbox sandbox_;
};

TEST_F(AmpvexStubLoggingTest, RefreshChargesTruncatedAmountsAndLogsThemWithTheirFraction) {
  monitor_->setReport(Monitor::report(3279, kDateD, {{"com.x", 1, 30.9}}));
  test::DetailedLog log(sandbox_);
  ASSERT_TRUE(log.switchOn());
  AmpvexStub* stub = start();
  const auto record = stub->powerFetchBudgetPool()->findPoolResource("com.x");
  EXPECT_EQ(record->currentItemPoolValue(), 30);
  EXPECT_EQ(record->currentItemPoolDiff(), 0);  // cleared by the start-up task
  EXPECT_EQ(stub->startAmpvexLiteDate(), kDateD);

  refreshWith(
      Monitor::report(3279, kDateD, {{"com.x", 1, 45.0}, {"com.y", 0, 99.5}, {"com.y", 6, 99.5}}));
  EXPECT_EQ(record->currentItemPoolValue(), 45);
  EXPECT_EQ(record->currentItemPoolDiff(), 15);
  EXPECT_EQ(stub->energyConsumedForFetch(), 15);
  EXPECT_EQ(stub->energyConsumedForFetch(), 0);

  refreshWith(Monitor::report(3279, kDateE, {{"com.x", 1, 5}}));
  EXPECT_EQ(record->currentItemPoolValue(), 5);
  EXPECT_EQ(record->currentItemPoolDiff(), 5);

  refreshWith(std::nullopt);
  EXPECT_EQ(stub->getBatteryCapacity(), 0.0);
  EXPECT_EQ(stub->energyConsumedForPush(), 0);
  EXPECT_EQ(stub->energyConsumedForBackgroundDownload(), 0);
  EXPECT_EQ(stub->energyConsumedForNonDiscDownload(), 0);

  EXPECT_EQ(log.texts(kEnergyLines), (Lines{
                                         "Ampvex reset detected. reset pool",
                                         "number of apps that consumed power 1",
                                         "updatePowerBudgetPool fetch: com.x cost 30.900000",
                                         "number of apps that consumed power 3",
                                         "updatePowerBudgetPool fetch: com.x cost 45.000000",
                                         "Deduct energy Fetch app 15",
                                         "Deduct energy Fetch app 0",
                                         "Ampvex reset detected. reset pool",
                                         "number of apps that consumed power 1",
                                         "updatePowerBudgetPool fetch: com.x cost 5.000000",
                                         "Ampvex reset detected. reset pool",
                                         "number of apps that consumed power 0",
                                         "No Battery Capacity from AXL",
                                         "No Battery Capacity from AXL",
                                         "Deduct energy push: 0",
                                         "Deduct energy background download 0",
                                         "Deduct energy non-disc 0",
                                     }));
}

TEST_F(AmpvexStubLoggingTest, EachUpdateTypeHasItsOwnLine) {
  monitor_->setReport(Monitor::report(1, kDateD, {}));
  test::DetailedLog log(sandbox_);
  ASSERT_TRUE(log.switchOn());
  start();
  refreshWith(Monitor::report(1, kDateD,
                              {{"com.a", 1, 1.5},
                               {"com.a", 2, 2.25},
                               {"com.a", 3, 3},
                               {"com.a", 4, -4.75},
                               {"com.a", 5, 1e6}}));
  EXPECT_EQ(AmpvexStub::instance()->energyConsumedForBackgroundDownload(), -4);
  EXPECT_EQ(log.texts({"updatePowerBudgetPool", "Deduct"}),
            (Lines{
                "updatePowerBudgetPool fetch: com.a cost 1.500000",
                "updatePowerBudgetPool push: com.a cost 2.250000",
                "updatePowerBudgetPool silent push: com.a cost 3.000000",
                "updatePowerBudgetPool backgroundDownload: com.a cost -4.750000",
                "updatePowerBudgetPool nonDisc: com.a cost 1000000.000000",
                "Deduct energy background download -4",
            }));
}

Lines poolDump(const char* name, const Lines& records) {
  Lines lines = {std::string(name) + " ----->", "budgetMode 1", "itemPoolLimit 100",
                 "globalPoolLimit 500"};
  lines.insert(lines.end(), records.begin(), records.end());
  lines.push_back(std::string("<----- ") + name);
  return lines;
}

Lines serviceDump(const Lines& light, const Lines& background, const Lines& fetch,
                  const Lines& push) {
  Lines lines = {"AmpvexStub Framework----->"};
  for (const Lines* part : {&light, &background, &fetch, &push}) {
    lines.insert(lines.end(), part->begin(), part->end());
  }
  lines.push_back("<-----AmpvexStub Framework");
  return lines;
}

TEST_F(AmpvexStubLoggingTest, DumpOfAnUnchargedServiceHasItsTwelveSteps) {
  AmpvexStub* stub = start();
  test::VslCapture dump;
  stub->logAll(dump.client(), dump.msg(), 6);
  EXPECT_EQ(dump.texts(),
            serviceDump({"totalBackgroundDownloadPowerUsed 0", "totalFetchPowerUsed 0",
                         "totalPushPowerUsed 0", "startAmpvexLiteDate (null)", "batteryCapacity 0"},
                        poolDump("powerbackgroundDownloadBudgetPool", {"currentGlobalPool 0"}),
                        poolDump("powerFetchBudgetPool", {"currentGlobalPool 0"}),
                        poolDump("powerPushBudgetPool", {"currentGlobalPool 0"})));
}

TEST_F(AmpvexStubLoggingTest, DumpLeavesOutSilentPushAndNonDiscretionary) {
  monitor_->setReport(Monitor::report(
      3279.9, kDateD,
      {{"com.b", 4, 80}, {"com.a", 1, 30}, {"com.a", 2, 5}, {"com.s", 3, 9}, {"com.n", 5, 4}}));
  AmpvexStub* stub = start();
  refreshWith(Monitor::report(3279.9, kDateD,
                              {{"com.b", 4, 80},
                               {"com.a", 1, 45},
                               {"com.c", 1, 7},
                               {"com.a", 2, 5},
                               {"com.s", 3, 12},
                               {"com.n", 5, 4}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 22);
  EXPECT_EQ(stub->energyConsumedForPush(), 3);
  refreshWith(Monitor::report(3279.9, kDateD, {{"com.c", 1, 9}}));

  test::VslCapture dump;
  stub->logAll(dump.client(), dump.msg(), 6);
  const Lines light = {"totalBackgroundDownloadPowerUsed 0", "totalFetchPowerUsed 22",
                       "totalPushPowerUsed 0", "startAmpvexLiteDate 2025-11-21 04:40:00 +0000",
                       "batteryCapacity 3279"};
  EXPECT_EQ(
      dump.texts(),
      serviceDump(
          light,
          poolDump("powerbackgroundDownloadBudgetPool",
                   {"currentGlobalPool 80", "AppID: com.b Diff 0 Value 80"}),
          poolDump("powerFetchBudgetPool", {"currentGlobalPool 54", "AppID: com.a Diff 0 Value 45",
                                            "AppID: com.c Diff 2 Value 9"}),
          poolDump("powerPushBudgetPool", {"currentGlobalPool 5", "AppID: com.a Diff 0 Value 5"})));

  test::VslCapture lightDump;
  stub->logLight(lightDump.client(), lightDump.msg(), 6);
  EXPECT_EQ(lightDump.texts(), light);
}

TEST(AmpvexStubDateTest, DatesAreDescribedInUtcToTheSecond) {
  EXPECT_EQ(AmpvexStub::describeDate(0), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(AmpvexStub::describeDate(kDateD + 0.999), "2025-11-21 04:40:00 +0000");
  EXPECT_EQ(AmpvexStub::describeDate(-1.5), "1969-12-31 23:59:58 +0000");
  EXPECT_EQ(AmpvexStub::describeDate(NAN), "nan seconds since 1970");
  EXPECT_EQ(AmpvexStub::describeDate(1e300), "1e+300 seconds since 1970");
}

constexpr int kRounds = 150;

// Dumps read the service from a logger's queue while the energy queue refreshes it: no lock
// may be held across a log call (the refresh logs, and a dump on the logger's queue would wait
// for it), and no field may be read racily. Meant to run under ThreadSanitizer too.
TEST_F(AmpvexStubLoggingTest, DumpsRunWhileRefreshesAndReadingsDo) {
  monitor_->setReport(Monitor::report(1, kDateD, {}));
  test::DetailedLog log(sandbox_);
  ASSERT_TRUE(log.switchOn());
  AmpvexStub* stub = start();
  KeloLogger::instance()->addDataSource(stub);

  std::thread dumper([stub] {
    test::VslCapture dump;
    for (int i = 0; i < kRounds; ++i) {
      stub->logAll(dump.client(), dump.msg(), 6);
      if (i % 25 == 0) KeloLogger::instance()->dumpAllLogs();
    }
    const Lines texts = dump.texts();
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "AmpvexStub Framework----->"), kRounds);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "<-----AmpvexStub Framework"), kRounds);
  });
  std::thread reader([stub] {
    for (int i = 0; i < kRounds; ++i) {
      stub->powerFetchBudgetPool()->totalBudget();
      (void)stub->startAmpvexLiteDate();
      energyStartLogging("com.reader", 1, static_cast<uint64_t>(i));
      energyStopLogging("com.reader", 1, static_cast<uint64_t>(i));
    }
  });

  int64_t fetched = 0;
  for (int i = 0; i < kRounds; ++i) {
    std::vector<Monitor::Entry> entries;
    for (int app = 0; app < 8; ++app) {
      for (int64_t type = 1; type <= 5; ++type) {
        entries.push_back({"com.app" + std::to_string(app), type, static_cast<double>(i)});
      }
    }
    // A new reference date every ten rounds.
    monitor_->setReport(Monitor::report(1000 + i, kDateD + (i / 10), entries));
    energyConsumedRefresh();
    fetched += stub->energyConsumedForFetch();
    stub->energyConsumedForPush();
    energyConsumedForBackgroundDownload();
    stub->getBatteryCapacity();
  }
  dumper.join();
  reader.join();
  // Round i charges i to eight applications; after a new date the whole amount counts, so the
  // readings add up to eight times the sum of the last amount of each date period.
  int64_t expected = 0;
  for (int period = 0; period * 10 < kRounds; ++period) {
    expected += 8 * std::min(period * 10 + 9, kRounds - 1);
  }
  EXPECT_EQ(fetched, expected);
}

}  // namespace
}  // namespace kelo
