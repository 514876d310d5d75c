#include "kelo/AmpvexStub.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kelo/energy.h"
#include "tests/energy/EnergyTestUtil.h"
#include "tests/support/InMemoryPowerMonitor.h"
#include "tests/support/Sandbox.h"

namespace kelo {
namespace {

using Monitor = test::InMemoryPowerMonitor;
using Entry = Monitor::Entry;

constexpr double kDateD = 1763700000.0;
constexpr double kDateE = 1763790000.0;

class AmpvexStubTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::Overrides overrides;
    overrides.powerMonitor = monitor_;
    sandbox_.install(overrides);
    test::writeEnergyConfiguration(sandbox_, 500, 100);
  }

  // Returns once every task posted before has run. Only reads (the capacity query), so it
  // changes no diff.
  static void drain() { AmpvexStub::instance()->getBatteryCapacity(); }

  // The service, once its start-up tasks (the first refresh, the diff reset) ran.
  static AmpvexStub* start() {
    AmpvexStub* stub = AmpvexStub::instance();
    stub->getBatteryCapacity();
    return stub;
  }

  void refreshWith(std::optional<Value> report) {
    monitor_->setReport(std::move(report));
    AmpvexStub::instance()->energyConsumedRefresh();
    drain();
  }

  static std::map<std::string, int64_t> readings() {
    AmpvexStub* stub = AmpvexStub::instance();
    return {{"fetch", stub->energyConsumedForFetch()},
            {"push", stub->energyConsumedForPush()},
            {"background", stub->energyConsumedForBackgroundDownload()},
            {"nondisc", stub->energyConsumedForNonDiscDownload()}};
  }
  static std::map<std::string, int64_t> zeroReadings() {
    return {{"fetch", 0}, {"push", 0}, {"background", 0}, {"nondisc", 0}};
  }

  std::shared_ptr<Monitor> monitor_ = std::make_shared<Monitor>();
  test::Sandbox sandbox_;
};

// Without a bundle every lookup misses and says so: the ten lines show the lookup order, the
// global limit then the item limit, afresh for each of the five pools.
TEST(AmpvexStubWithoutConfigurationTest, EachPoolLooksBothLimitsUpAndMissesThem) {
  test::Sandbox sandbox;
  platform::Overrides overrides;
  overrides.powerMonitor = std::make_shared<Monitor>();
  sandbox.install(overrides);
  test::DetailedLog log(sandbox);
  ASSERT_TRUE(log.switchOn());
  AmpvexStub* stub = AmpvexStub::instance();
  for (const auto& pool : {stub->powerbackgroundDownloadBudgetPool(), stub->powerFetchBudgetPool(),
                           stub->powerPushBudgetPool(), stub->powerSilentPushBudgetPool(),
                           stub->powerNonDiscretionaryBudgetPool()}) {
    EXPECT_EQ(pool->globalPoolLimit(), -1);
    EXPECT_EQ(pool->itemPoolLimit(), -1);
  }
  std::vector<std::string> expected;
  for (int pool = 0; pool < 5; ++pool) {
    expected.push_back("Kelo keyword missing in dict globalPowerBudget");
    expected.push_back("Kelo keyword missing in dict fetchAppPowerBudget");
  }
  EXPECT_EQ(log.texts({"Kelo keyword missing"}), expected);
}

TEST_F(AmpvexStubTest, FirstRefreshIsABaselineThatNoReadingReports) {
  monitor_->setReport(Monitor::report(
      3279, kDateD,
      {{"com.a", 1, 30.9}, {"com.a", 2, 5}, {"com.a", 3, 2}, {"com.a", 4, 10}, {"com.a", 5, 7}}));
  AmpvexStub* stub = start();
  EXPECT_EQ(readings(), zeroReadings());
  EXPECT_EQ(monitor_->reportCalls(), 1);
  // The baseline stays in the values, so that later reports count only their growth.
  EXPECT_EQ(stub->powerFetchBudgetPool()->findPoolResource("com.a")->currentItemPoolValue(), 30);
  EXPECT_EQ(stub->powerNonDiscretionaryBudgetPool()->totalBudget(), 7);
  EXPECT_EQ(stub->startAmpvexLiteDate(), kDateD);
}

TEST_F(AmpvexStubTest, GrowthOfCumulativeAmountsIsReadOnce) {
  monitor_->setReport(Monitor::report(3279, kDateD,
                                      {{"com.a", 1, 30},
                                       {"com.b", 1, 3},
                                       {"com.a", 2, 5},
                                       {"com.a", 3, 2},
                                       {"com.a", 4, 10},
                                       {"com.a", 5, 7}}));
  start();
  refreshWith(Monitor::report(3279, kDateD,
                              {{"com.a", 1, 45.0},
                               {"com.b", 1, 4.99},
                               {"com.a", 2, 8},
                               {"com.a", 3, 6},
                               {"com.a", 4, 25},
                               {"com.a", 5, 7}}));
  // Push folds push (3) and silent push (4).
  EXPECT_EQ(readings(), (std::map<std::string, int64_t>{
                            {"fetch", 16}, {"push", 7}, {"background", 15}, {"nondisc", 0}}));
  EXPECT_EQ(readings(), zeroReadings());

  AmpvexStub* stub = start();
  EXPECT_EQ(stub->totalFetchPowerUsed(), 0);
  EXPECT_EQ(stub->totalPushPowerUsed(), 0);
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

TEST_F(AmpvexStubTest, NewReferenceDateChargesTheNewAmountWhole) {
  monitor_->setReport(Monitor::report(1, kDateD, {{"com.a", 1, 30}, {"com.b", 4, 80}}));
  AmpvexStub* stub = start();
  refreshWith(Monitor::report(1, kDateE, {{"com.a", 1, 5}}));
  EXPECT_EQ(stub->startAmpvexLiteDate(), kDateE);
  EXPECT_EQ(stub->energyConsumedForFetch(), 5);
  // The reset zeroed every pool, also those the new report does not mention.
  EXPECT_EQ(stub->powerbackgroundDownloadBudgetPool()->currentGlobalPool(), 0);
  EXPECT_EQ(stub->powerbackgroundDownloadBudgetPool()->totalBudget(), 0);
  EXPECT_EQ(stub->energyConsumedForBackgroundDownload(), 0);  // diffs survive a reset: none here

  // A date one microsecond later is a new instant too.
  refreshWith(Monitor::report(1, kDateE + 1e-6, {{"com.a", 1, 6}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 6);
}

TEST_F(AmpvexStubTest, MissingReportResetsEverythingAndTheNextReportCountsInFull) {
  monitor_->setReport(Monitor::report(3279, kDateD, {{"com.a", 1, 30}}));
  AmpvexStub* stub = start();
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

  // A report without a reference date behaves alike.
  refreshWith(Monitor::report(3279, std::nullopt, {{"com.a", 1, 50}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 50);
  refreshWith(Monitor::report(3279, std::nullopt, {{"com.a", 1, 52}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 52);
}

TEST_F(AmpvexStubTest, EntriesOutsideTheFiveTypesOrWithoutIdentifierChangeNothing) {
  monitor_->setReport(Monitor::report(1, kDateD, {{"com.a", 1, 10}}));
  AmpvexStub* stub = start();

  Value::Dictionary noType{{"bundleID", Value::string("com.n")}, {"energy_mWh", Value::real(9)}};
  Value::Dictionary noId{{"updateType", Value::integer(1)}, {"energy_mWh", Value::real(9)}};
  Value::Dictionary numericId{{"bundleID", Value::integer(7)},
                              {"updateType", Value::integer(2)},
                              {"energy_mWh", Value::real(9)}};
  refreshWith(Monitor::rawReport(
      1, kDateD,
      Value::Array{Monitor::entry({"com.z", 0, 99}), Monitor::entry({"com.z", 6, 99}),
                   Monitor::entry({"com.z", -1, 99}),
                   Monitor::entry({"com.z", (int64_t{1} << 32) + 7, 99}), Value::dictionary(noType),
                   Value::dictionary(noId), Value::dictionary(numericId),
                   Value::string("not an entry")}));
  for (const auto& pool : {stub->powerbackgroundDownloadBudgetPool(), stub->powerFetchBudgetPool(),
                           stub->powerPushBudgetPool(), stub->powerSilentPushBudgetPool(),
                           stub->powerNonDiscretionaryBudgetPool()}) {
    EXPECT_EQ(pool->totalDiffBudget(), 0);
  }
  EXPECT_EQ(stub->powerFetchBudgetPool()->itemCount(), 1u);
  EXPECT_EQ(stub->powerPushBudgetPool()->itemCount(), 0u);
  EXPECT_EQ(stub->powerFetchBudgetPool()->totalBudget(), 10);

  // The type is read as 32 bits: 2^32 + 1 is a fetch.
  refreshWith(Monitor::report(1, kDateD, {{"com.a", (int64_t{1} << 32) + 1, 12}}));
  EXPECT_EQ(stub->energyConsumedForFetch(), 2);

  // Without an energy value the charge is 0, so the diff is minus the previous value.
  refreshWith(
      Monitor::rawReport(1, kDateD,
                         Value::Array{Value::dictionary({{"bundleID", Value::string("com.a")},
                                                         {"updateType", Value::integer(1)}})}));
  EXPECT_EQ(stub->energyConsumedForFetch(), -12);
}

TEST_F(AmpvexStubTest, BatteryCapacityFollowsTheLatestReport) {
  monitor_->setReport(Monitor::report(3279.75, kDateD, {}));
  AmpvexStub* stub = start();
  EXPECT_EQ(stub->getBatteryCapacity(), 3279.75);
  refreshWith(Monitor::report(std::nullopt, kDateD, {}));
  EXPECT_EQ(stub->getBatteryCapacity(), 0.0);
  refreshWith(Value::dictionary({{"BLMBatteryCapacity", Value::integer(2000)}}));
  EXPECT_EQ(stub->getBatteryCapacity(), 2000.0);
}

TEST_F(AmpvexStubTest, EventsKeepTheOrderOfEachCallersCalls) {
  constexpr int kThreads = 4;
  constexpr int kEventsPerThread = 300;
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
  drain();

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
  drain();
  stub->energyPoweronReset();
  // Not posted: the monitor has it before any later task runs.
  EXPECT_EQ(monitor_->events(), (std::vector<Monitor::Event>{
                                    {"com.short.lived", 4, 9, 1},
                                    {"", 4, 9, 2},
                                    {"", 0, 0, Monitor::kStopAll},
                                }));
}

}  // namespace
}  // namespace kelo
