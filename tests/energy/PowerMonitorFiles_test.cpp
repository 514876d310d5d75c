#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kelo/AmpvexStub.h"
#include "kelo/energy.h"
#include "platform/Json.h"
#include "platform/PowerMonitor.h"
#include "tests/support/Sandbox.h"

namespace kelo::platform {
namespace {

using test::Sandbox;

class PowerMonitorFilesTest : public ::testing::Test {
 protected:
  void SetUp() override { sandbox_.install(); }
  std::string eventsPath() const { return sandbox_.rootPath() + "/run/kelo/energy-events.jsonl"; }
  std::string reportPath() const { return sandbox_.rootPath() + "/run/kelo/energy-report.json"; }
  static std::vector<Value> journal(const std::string& path) {
    std::vector<Value> events;
    for (const std::string& line : Sandbox::readLines(path)) events.push_back(parseJson(line));
    return events;
  }
  Sandbox sandbox_;
};

TEST_F(PowerMonitorFilesTest, EventsAreJsonLinesUnderTheDeviceRoot) {
  sandbox_.setNow(1763722560.25);
  AXBatteryLifeMonitorLogKeloEvent("com.example.\"quoted\"", 4, UINT64_MAX, 1);
  AXBatteryLifeMonitorLogKeloEvent(nullptr, 0, 0, 2);
  AXBatteryLifeMonitorLogKeloEvent("com.example.app", 1, 3, 9);
  AXBatteryLifeMonitorStopAllKeloEvents();

  struct stat st;
  ASSERT_EQ(::stat((sandbox_.rootPath() + "/run/kelo").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0755u);
  const std::vector<Value> events = journal(eventsPath());
  ASSERT_EQ(events.size(), 4u);
  for (const Value& e : events) {
    ASSERT_TRUE(e.isDictionary());
    EXPECT_EQ(e.find("time")->doubleValue(), 1763722560.25);
    EXPECT_EQ(e.find("process")->asString(), "kelotest");
    EXPECT_EQ(e.find("pid")->integerValue(), ::getpid());
  }
  EXPECT_EQ(events[0].find("event")->asString(), "start");
  EXPECT_EQ(events[0].find("kind")->integerValue(), 1);
  EXPECT_EQ(events[0].find("bundleID")->asString(), "com.example.\"quoted\"");
  EXPECT_EQ(events[0].find("updateType")->integerValue(), 4);
  // Beyond the signed range the reader sees a real; the text keeps every digit.
  EXPECT_NE(Sandbox::readLines(eventsPath())[0].find("\"seqNum\":18446744073709551615}"),
            std::string::npos);
  EXPECT_EQ(events[1].find("event")->asString(), "stop");
  EXPECT_EQ(events[1].find("bundleID")->asString(), "");
  EXPECT_EQ(events[2].find("event")->asString(), "other");
  EXPECT_EQ(events[2].find("kind")->integerValue(), 9);
  EXPECT_EQ(events[3].find("event")->asString(), "stopAll");
  EXPECT_EQ(events[3].find("bundleID"), nullptr);
}

TEST_F(PowerMonitorFilesTest, JournalRotatesPastItsLimitWithoutLosingEvents) {
  // Two writers of 100 lines of about 130 bytes each: one rotation.
  constexpr std::size_t kLimit = 16384;
  FilePowerMonitor monitor(eventsPath(), reportPath(), kLimit);
  std::vector<std::thread> threads;
  for (const char* id : {"com.a", "com.b"}) {
    threads.emplace_back([&monitor, id] {
      for (uint64_t i = 0; i < 100; ++i) monitor.logEvent(id, 1, i, 1);
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::map<std::string, std::vector<int64_t>> seqs;
  for (const std::string& path : {eventsPath() + ".1", eventsPath()}) {
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0) << path;
    EXPECT_LE(static_cast<std::size_t>(st.st_size), kLimit) << path;
    EXPECT_GT(st.st_size, 0) << path;
    for (const Value& e : journal(path)) {
      ASSERT_TRUE(e.isDictionary());
      seqs[e.find("bundleID")->asString()].push_back(e.find("seqNum")->integerValue());
    }
  }
  std::vector<int64_t> expected(100);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(seqs["com.a"], expected);
  EXPECT_EQ(seqs["com.b"], expected);
}

TEST_F(PowerMonitorFilesTest, UnwritableJournalDropsEventsWithOneLine) {
  Sandbox::writeFile(sandbox_.rootPath() + "/run/kelo", "a file where a folder belongs");
  AXBatteryLifeMonitorLogKeloEvent("com.a", 1, 1, 1);
  AXBatteryLifeMonitorLogKeloEvent("com.a", 1, 1, 2);
  const auto lines = sandbox_.systemLines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const test::SystemLine& l) {
                            return l.text.find("energy event journal") != std::string::npos;
                          }),
            1);
}

TEST_F(PowerMonitorFilesTest, ReportsThatAreMissingTornOrOfTheWrongShape) {
  EXPECT_EQ(AXBatteryLifeMonitorReportEnergyKelo(nullptr), std::nullopt);
  for (const char* content : {"", "{\"BLMBatteryCapacity\": 32", "[1, 2]", "\"report\"",
                              "{\"BLMEnergyForKelo\": [{\"bundleID\": \"a\"}]} trailing"}) {
    Sandbox::writeFile(reportPath(), content);
    EXPECT_EQ(AXBatteryLifeMonitorReportEnergyKelo(nullptr), std::nullopt) << content;
  }
  // Fields of the wrong type read as absent.
  const std::optional<Value> report = FilePowerMonitor::reportFromJson(parseJson(R"({
    "BLMBatteryCapacity": "full", "BLMEnergyReferenceDate": "yesterday",
    "BLMEnergyForKelo": [{"bundleID": 7, "updateType": "1", "energy_mWh": "30"},
                         {"bundleID": "com.a", "updateType": 2.0, "energy_mWh": true}, 5]})"));
  ASSERT_TRUE(report.has_value());
  EXPECT_EQ(report->find("BLMBatteryCapacity"), nullptr);
  EXPECT_EQ(report->find("BLMEnergyReferenceDate"), nullptr);
  EXPECT_EQ(report->find("BLMEnergyForKelo")->asArray(),
            (Value::Array{Value::dictionary({}),
                          Value::dictionary({{"bundleID", Value::string("com.a")},
                                             {"updateType", Value::real(2.0)}}),
                          Value::dictionary({})}));
  EXPECT_EQ(FilePowerMonitor::reportFromJson(parseJson(R"({"BLMEnergyForKelo": {"a": 1}})")),
            Value::dictionary({}));
}

// The service on the default backend: a torn report file counts as no report, so the next good
// one is charged in full.
TEST_F(PowerMonitorFilesTest, ServiceReadsTheReportFile) {
  Sandbox::writeFile(sandbox_.rootPath() + "/System/Library/Kelo/KeloConfiguration.bundle/Info.json",
                     R"({"commonDefaults": {"globalPowerBudget": 500}})");
  auto report = [](int energy) {
    return R"({"BLMBatteryCapacity": 3000, "BLMEnergyReferenceDate": 1763700000,
               "BLMEnergyForKelo": [{"bundleID": "com.a", "updateType": 5, "energy_mWh": )" +
           std::to_string(energy) + "}]}";
  };
  Sandbox::writeFile(reportPath(), report(10));
  AmpvexStub* stub = AmpvexStub::instance();
  EXPECT_EQ(stub->getBatteryCapacity(), 3000.0);
  EXPECT_EQ(stub->startAmpvexLiteDate(), 1763700000.0);

  Sandbox::writeFile(reportPath(), report(14));
  energyConsumedRefresh();
  EXPECT_EQ(energyConsumedForNonDiscDownload(), 4);
  EXPECT_EQ(energyConsumedForNonDiscDownload(), 0);

  Sandbox::writeFile(reportPath(), report(20).substr(0, 40));
  stub->energyConsumedRefresh();
  EXPECT_EQ(stub->getBatteryCapacity(), 0.0);
  EXPECT_EQ(stub->startAmpvexLiteDate(), std::nullopt);

  Sandbox::writeFile(reportPath(), report(20));
  energyConsumedRefresh();
  EXPECT_EQ(energyConsumedForNonDiscDownload(), 20);

  stub->energyStartLogging("com.a", 5, 1);
  stub->energyPoweronReset();  // on this thread: may overtake the start, which is still queued
  stub->getBatteryCapacity();
  std::vector<std::string> kinds;
  for (const Value& e : journal(eventsPath())) kinds.push_back(e.find("event")->asString());
  std::sort(kinds.begin(), kinds.end());
  EXPECT_EQ(kinds, (std::vector<std::string>{"start", "stopAll"}));
}

}  // namespace
}  // namespace kelo::platform
