#include "kelo/AmpvexStub.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kelo/KeloLogger.h"
#include "kelo/energy.h"
#include "tests/support/InMemoryPowerMonitor.h"
#include "tests/support/LogCapture.h"

namespace kelo {
namespace {

using Monitor = test::InMemoryPowerMonitor;
using Lines = std::vector<std::string>;
using Readings = std::map<std::string, int64_t>;

constexpr double kDateD = 1763700000.0;  // 2025-11-21 04:40:00 UTC
constexpr double kDateE = 1763790000.0;
std::vector<std::shared_ptr<BudgetPool>> pools(AmpvexStub* stub) {
  return {stub->powerbackgroundDownloadBudgetPool(), stub->powerFetchBudgetPool(),
          stub->powerPushBudgetPool(), stub->powerSilentPushBudgetPool(),
          stub->powerNonDiscretionaryBudgetPool()};
}
const Readings kZero = {{"fetch", 0}, {"push", 0}, {"background", 0}, {"nondisc", 0}};

class AmpvexStubTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::Overrides o;
    o.powerMonitor = monitor_;
    sandbox_.install(o);
    test::Sandbox::writeFile(
        sandbox_.rootPath() + "/System/Library/Kelo/KeloConfiguration.bundle/Info.json",
        R"({"commonDefaults": {"globalPowerBudget": 500},
            "fetchBudget": {"fetchAppPowerBudget": 100}})");
  }
  // The service, once its start-up tasks (the first refresh, the diff reset) ran. The capacity
  // query only reads, so it also serves to wait for every task posted before.
  static AmpvexStub* start() {
    AmpvexStub* stub = AmpvexStub::instance();
    stub->getBatteryCapacity();
    return stub;
  }
  void refreshWith(std::optional<Value> report) {
    monitor_->setReport(std::move(report));
    AmpvexStub::instance()->energyConsumedRefresh();
    AmpvexStub::instance()->getBatteryCapacity();
  }
  static Readings readings() {
    AmpvexStub* stub = AmpvexStub::instance();
    return {{"fetch", stub->energyConsumedForFetch()},
            {"push", stub->energyConsumedForPush()},
            {"background", stub->energyConsumedForBackgroundDownload()},
            {"nondisc", stub->energyConsumedForNonDiscDownload()}};
  }

  std::shared_ptr<Monitor> monitor_ = std::make_shared<Monitor>();
  test::Sandbox sandbox_;
};

// Without a bundle every lookup misses and says so, the global limit then the item limit,
// afresh for each of the five pools.
TEST(AmpvexStubWithoutConfigurationTest, EachPoolLooksBothLimitsUpAndMissesThem) {
  test::Sandbox sandbox;
  platform::Overrides o;
  o.powerMonitor = std::make_shared<Monitor>();
  sandbox.install(o);
  test::DetailedLog log(sandbox);
  ASSERT_TRUE(log.switchOn());
  AmpvexStub* stub = AmpvexStub::instance();
  Lines expected;
  for (const auto& pool : pools(stub)) {
    EXPECT_EQ(pool->globalPoolLimit(), -1);
    EXPECT_EQ(pool->itemPoolLimit(), -1);
    expected.push_back("Kelo keyword missing in dict globalPowerBudget");
    expected.push_back("Kelo keyword missing in dict fetchAppPowerBudget");
  }
  EXPECT_EQ(log.texts({"Kelo keyword missing"}), expected);
}

TEST_F(AmpvexStubTest, FirstReportIsABaselineAndLaterGrowthIsReadOnce) {
  monitor_->setReport(Monitor::report(3279, kDateD,
                                      {{"com.a", 1, 30.9}, {"com.b", 1, 3}, {"com.a", 2, 5},
                                       {"com.a", 3, 2}, {"com.a", 4, 10}, {"com.a", 5, 7}}));
  AmpvexStub* stub = start();
  EXPECT_EQ(readings(), kZero);
  EXPECT_EQ(monitor_->reportCalls(), 1);
  EXPECT_EQ(stub->powerNonDiscretionaryBudgetPool()->totalBudget(), 7);

  refreshWith(Monitor::report(3279, kDateD,
                              {{"com.a", 1, 45.0}, {"com.b", 1, 4.99}, {"com.a", 2, 8},
                               {"com.a", 3, 6}, {"com.a", 4, 25}, {"com.a", 5, 7}}));
  // Push folds push (3) and silent push (4).
  EXPECT_EQ(readings(), (Readings{{"fetch", 16}, {"push", 7}, {"background", 15}, {"nondisc", 0}}));
  EXPECT_EQ(readings(), kZero);
  EXPECT_EQ(stub->totalFetchPowerUsed(), 0);
  EXPECT_EQ(stub->totalSilentPushPowerUsed(), 0);

  refreshWith(Monitor::report(3279, kDateD, {{"com.a", 3, 9}}));
  EXPECT_EQ(stub->energyConsumedForPush(), 3);
  EXPECT_EQ(stub->totalSilentPushPowerUsed(), 3);
  EXPECT_EQ(stub->totalPushPowerUsed(), 0);
}

TEST_F(AmpvexStubTest, OnlyTheLatestChargeOfAnApplicationCounts) {
  monitor_->setReport(Monitor::report(1, kDateD, {{"com.a", 1, 10}, {"com.a", 1, 25}}));
  AmpvexStub* stub = start();
  EXPECT_EQ(stub->powerFetchBudgetPool()->findPoolResource("com.a")->currentItemPoolValue(), 25);
  // Two entries of one application in one report: the second diff replaces the first.
  refreshWith(Monitor::report(1, kDateD, {{"com.a", 1, 30}, {"com.a", 1, 40}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 10);
  // Two refreshes without a reading in between: only the second growth is read.
  refreshWith(Monitor::report(1, kDateD, {{"com.a", 1, 50}}));
  refreshWith(Monitor::report(1, kDateD, {{"com.a", 1, 53}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 3);
}

TEST_F(AmpvexStubTest, MissingReportResetsEverythingAndTheNextReportCountsInFull) {
  monitor_->setReport(Monitor::report(3279.75, kDateD, {{"com.a", 1, 30}}));
  AmpvexStub* stub = start();
  EXPECT_EQ(stub->getBatteryCapacity(), 3279.75);
  refreshWith(std::nullopt);
  EXPECT_EQ(stub->startAmpvexLiteDate(), std::nullopt);
  EXPECT_EQ(stub->batteryCapacity(), std::nullopt);
  EXPECT_EQ(stub->getBatteryCapacity(), 0.0);
  EXPECT_EQ(stub->powerFetchBudgetPool()->totalBudget(), 0);
  EXPECT_EQ(stub->powerFetchBudgetPool()->currentGlobalPool(), 0);

  // The same date as before is no longer known: the amount is charged whole.
  refreshWith(Monitor::report(3279, kDateD, {{"com.a", 1, 45}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 45);
  EXPECT_EQ(stub->getBatteryCapacity(), 3279.0);
  // A report without a reference date behaves alike; one without capacity reads 0.
  refreshWith(Monitor::report(std::nullopt, std::nullopt, {{"com.a", 1, 50}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 50);
  EXPECT_EQ(stub->getBatteryCapacity(), 0.0);
  refreshWith(Monitor::report(3279, std::nullopt, {{"com.a", 1, 52}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 52);
  refreshWith(Value::dictionary({{"BLMBatteryCapacity", Value::integer(2000)}}));
  EXPECT_EQ(stub->getBatteryCapacity(), 2000.0);
}

TEST_F(AmpvexStubTest, EntriesOutsideTheFiveTypesOrWithoutIdentifierChangeNothing) {
  monitor_->setReport(Monitor::report(1, kDateD, {{"com.a", 1, 10}}));
  AmpvexStub* stub = start();
  const Value energy = Value::real(9);
  refreshWith(Monitor::rawReport(
      1, kDateD,
      Value::Array{
          Monitor::entry({"com.z", 0, 99}), Monitor::entry({"com.z", 6, 99}),
          Monitor::entry({"com.z", -1, 99}), Monitor::entry({"com.z", (int64_t{1} << 32) + 7, 99}),
          Value::dictionary({{"bundleID", Value::string("com.n")}, {"energy_mWh", energy}}),
          Value::dictionary({{"updateType", Value::integer(1)}, {"energy_mWh", energy}}),
          Value::dictionary({{"bundleID", Value::integer(7)},
                             {"updateType", Value::integer(2)},
                             {"energy_mWh", energy}}),
          Value::string("not an entry")}));
  for (const auto& pool : pools(stub)) EXPECT_EQ(pool->totalDiffBudget(), 0);
  EXPECT_EQ(stub->powerFetchBudgetPool()->itemCount(), 1u);
  EXPECT_EQ(stub->powerPushBudgetPool()->itemCount(), 0u);
  EXPECT_EQ(stub->powerFetchBudgetPool()->totalBudget(), 10);

  // The type is read as 32 bits: 2^32 + 1 is a fetch.
  refreshWith(Monitor::report(1, kDateD, {{"com.a", (int64_t{1} << 32) + 1, 12}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 2);
  // Without an energy value the charge is 0, so the diff is minus the previous value.
  refreshWith(Monitor::rawReport(
      1, kDateD,
      Value::Array{Value::dictionary(
          {{"bundleID", Value::string("com.a")}, {"updateType", Value::integer(1)}})}));
  EXPECT_EQ(stub->energyConsumedForFetch(), -12);
}

TEST_F(AmpvexStubTest, EventsKeepTheOrderOfEachCallersCalls) {
  constexpr int kThreads = 4, kEventsPerThread = 300;
  start();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const std::string id = "com.thread" + std::to_string(t);
      for (int i = 0; i < kEventsPerThread; ++i) {
        const auto type = static_cast<int16_t>(i % 9 - 1);  // -1, 0, 6, 7 reach it as 0
        const auto seq = static_cast<uint64_t>(i) << 40;
        if (t % 2 == 0) {
          energyStartLogging(id.c_str(), type, seq);
          energyStopLogging(id.c_str(), type, seq);
        } else {
          AmpvexStub::instance()->energyStartLogging(id.c_str(), type, seq);
          AmpvexStub::instance()->energyStopLogging(id.c_str(), type, seq);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  start();

  std::map<std::string, std::vector<Monitor::Event>> byCaller;
  for (const Monitor::Event& e : monitor_->events()) byCaller[e.bundleId].push_back(e);
  ASSERT_EQ(byCaller.size(), static_cast<std::size_t>(kThreads));
  for (const auto& [id, events] : byCaller) {
    ASSERT_EQ(events.size(), 2u * kEventsPerThread) << id;
    for (int i = 0; i < kEventsPerThread; ++i) {
      const int type = i % 9 - 1;
      const auto mapped = static_cast<int16_t>(type >= 1 && type <= 5 ? type : 0);
      const auto seq = static_cast<uint64_t>(i) << 40;
      EXPECT_EQ(events[2 * i], (Monitor::Event{id, mapped, seq, 1})) << id << " " << i;
      EXPECT_EQ(events[2 * i + 1], (Monitor::Event{id, mapped, seq, 2})) << id << " " << i;
    }
  }
}

TEST_F(AmpvexStubTest, EventCopiesTheIdentifierAndStopAllRunsAtOnce) {
  AmpvexStub* stub = start();
  {
    std::string id = "com.short.lived";
    stub->energyStartLogging(id.c_str(), 4, 9);
    id.assign(id.size(), 'x');
  }
  stub->energyStopLogging(nullptr, 4, 9);
  start();
  stub->energyPoweronReset();
  // Not posted: the monitor has it before any later task runs.
  EXPECT_EQ(monitor_->events(), (std::vector<Monitor::Event>{
                                    {"com.short.lived", 4, 9, 1},
                                    {"", 4, 9, 2},
                                    {"", 0, 0, Monitor::kStopAll},
                                }));
}

TEST_F(AmpvexStubTest, RefreshChargesTruncatedAmountsAndLogsThemWithTheirFraction) {
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

  // A new reference date charges the new amount whole; one a microsecond later is new too.
  refreshWith(Monitor::report(3279, kDateE, {{"com.x", 1, 5}}));
  EXPECT_EQ(record->currentItemPoolValue(), 5);
  EXPECT_EQ(record->currentItemPoolDiff(), 5);
  EXPECT_EQ(stub->startAmpvexLiteDate(), kDateE);
  refreshWith(Monitor::report(3279, kDateE + 1e-6, {{"com.x", 1, 5}}));
  EXPECT_EQ(record->currentItemPoolDiff(), 5);

  refreshWith(std::nullopt);
  EXPECT_EQ(stub->getBatteryCapacity(), 0.0);
  readings();
  EXPECT_EQ(log.texts({"Ampvex", "number of apps", "updatePowerBudgetPool", "Deduct energy",
                       "No Battery"}),
            (Lines{"Ampvex reset detected. reset pool", "number of apps that consumed power 1",
                   "updatePowerBudgetPool fetch: com.x cost 30.900000",
                   "number of apps that consumed power 3",
                   "updatePowerBudgetPool fetch: com.x cost 45.000000",
                   "Deduct energy Fetch app 15", "Deduct energy Fetch app 0",
                   "Ampvex reset detected. reset pool", "number of apps that consumed power 1",
                   "updatePowerBudgetPool fetch: com.x cost 5.000000",
                   "Ampvex reset detected. reset pool", "number of apps that consumed power 1",
                   "updatePowerBudgetPool fetch: com.x cost 5.000000",
                   "Ampvex reset detected. reset pool", "number of apps that consumed power 0",
                   "No Battery Capacity from AXL", "No Battery Capacity from AXL",
                   "Deduct energy Fetch app 5",  // a reset keeps the diffs
                   "Deduct energy push: 0", "Deduct energy background download 0",
                   "Deduct energy non-disc 0"}));
}

TEST_F(AmpvexStubTest, EachUpdateTypeHasItsOwnLine) {
  monitor_->setReport(Monitor::report(1, kDateD, {}));
  test::DetailedLog log(sandbox_);
  ASSERT_TRUE(log.switchOn());
  start();
  refreshWith(Monitor::report(
      1, kDateD,
      {{"com.a", 1, 1.5}, {"com.a", 2, 2.25}, {"com.a", 3, 3}, {"com.a", 4, -4.75},
       {"com.a", 5, 1e6}}));
  EXPECT_EQ(AmpvexStub::instance()->energyConsumedForBackgroundDownload(), -4);
  EXPECT_EQ(log.texts({"updatePowerBudgetPool", "Deduct"}),
            (Lines{"updatePowerBudgetPool fetch: com.a cost 1.500000",
                   "updatePowerBudgetPool push: com.a cost 2.250000",
                   "updatePowerBudgetPool silent push: com.a cost 3.000000",
                   "updatePowerBudgetPool backgroundDownload: com.a cost -4.750000",
                   "updatePowerBudgetPool nonDisc: com.a cost 1000000.000000",
                   "Deduct energy background download -4"}));
}

Lines poolDump(const std::string& name, const Lines& records) {
  Lines lines = {name + " ----->", "budgetMode 1", "itemPoolLimit 100", "globalPoolLimit 500"};
  lines.insert(lines.end(), records.begin(), records.end());
  lines.push_back("<----- " + name);
  return lines;
}

// The light part, then the background download, fetch and push pools: silent push and
// non-discretionary are left out.
Lines serviceDump(const Lines& light, const std::vector<Lines>& pools) {
  Lines lines = {"AmpvexStub Framework----->"};
  lines.insert(lines.end(), light.begin(), light.end());
  const char* names[] = {"powerbackgroundDownloadBudgetPool", "powerFetchBudgetPool",
                         "powerPushBudgetPool"};
  for (int i = 0; i < 3; ++i) {
    const Lines pool = poolDump(names[i], pools[i]);
    lines.insert(lines.end(), pool.begin(), pool.end());
  }
  lines.push_back("<-----AmpvexStub Framework");
  return lines;
}

TEST_F(AmpvexStubTest, DumpsOfAnUnchargedAndOfAChargedService) {
  AmpvexStub* stub = start();
  {
    test::VslCapture dump;
    stub->logAll(dump.client(), dump.msg(), 6);
    EXPECT_EQ(dump.texts(),
              serviceDump({"totalBackgroundDownloadPowerUsed 0", "totalFetchPowerUsed 0",
                           "totalPushPowerUsed 0", "startAmpvexLiteDate (null)",
                           "batteryCapacity 0"},
                          {{"currentGlobalPool 0"}, {"currentGlobalPool 0"},
                           {"currentGlobalPool 0"}}));
  }
  refreshWith(Monitor::report(
      3279.9, kDateD,
      {{"com.b", 4, 80}, {"com.a", 1, 30}, {"com.a", 2, 5}, {"com.s", 3, 9}, {"com.n", 5, 4}}));
  for (const auto& pool : pools(stub)) pool->resetAllDiff();  // as the start-up task does
  refreshWith(Monitor::report(3279.9, kDateD,
                              {{"com.b", 4, 80}, {"com.a", 1, 45}, {"com.c", 1, 7},
                               {"com.a", 2, 5}, {"com.s", 3, 12}, {"com.n", 5, 4}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 22);
  EXPECT_EQ(stub->energyConsumedForPush(), 3);
  refreshWith(Monitor::report(3279.9, kDateD, {{"com.c", 1, 9}}));

  test::VslCapture dump;
  stub->logAll(dump.client(), dump.msg(), 6);
  const Lines light = {"totalBackgroundDownloadPowerUsed 0", "totalFetchPowerUsed 22",
                       "totalPushPowerUsed 0", "startAmpvexLiteDate 2025-11-21 04:40:00 +0000",
                       "batteryCapacity 3279"};
  EXPECT_EQ(dump.texts(),
            serviceDump(light, {{"currentGlobalPool 80", "AppID: com.b Diff 0 Value 80"},
                                {"currentGlobalPool 54", "AppID: com.a Diff 0 Value 45",
                                 "AppID: com.c Diff 2 Value 9"},
                                {"currentGlobalPool 5", "AppID: com.a Diff 0 Value 5"}}));
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

// Dumps read the service from a logger's queue while the energy queue refreshes it: no lock may
// be held across a log call, and no field may be read racily (run under ThreadSanitizer too).
constexpr int kRounds = 150;
TEST_F(AmpvexStubTest, DumpsRunWhileRefreshesAndReadingsDo) {
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
    monitor_->setReport(Monitor::report(1000 + i, kDateD + (i / 10), entries));  // new date / 10
    energyConsumedRefresh();
    fetched += stub->energyConsumedForFetch();
    stub->energyConsumedForPush();
    energyConsumedForBackgroundDownload();
    stub->getBatteryCapacity();
  }
  dumper.join();
  reader.join();
  // Round i charges i to eight applications; after a new date the whole amount counts, so the
  // readings add up to eight times the last amount of each date period.
  int64_t expected = 0;
  for (int period = 0; period * 10 < kRounds; ++period) {
    expected += 8 * std::min(period * 10 + 9, kRounds - 1);
  }
  EXPECT_EQ(fetched, expected);
}

}  // namespace
}  // namespace kelo
