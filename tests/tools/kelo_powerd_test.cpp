// kelo-powerd run as a user would run it, `--once` at a time, on device trees written by hand.
// Every expected amount is worked out in the comment beside it: 1 mWh = 3.6 J = 3,600,000 µJ,
// 100 clock ticks = 1 CPU second.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kelo/AmpvexStub.h"
#include "kelo/energy.h"
#include "platform/Json.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/Sandbox.h"
#include "tests/tools/ToolRunner.h"

namespace kelo::test {
namespace {

using Totals = std::map<std::string, double>;  // "bundleID/updateType" -> mWh
using Step = std::function<void(FakeDevice&)>;

constexpr int kPid = 42;

double wallClock() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Package 0 is seen twice (its MSR and MMIO interfaces) and has a core subzone; package 1 once.
// Interval k adds 6 mWh (21.6 J) to package 0 and 4 mWh (14.4 J) to package 1: 10 mWh, while the
// subzone's moves (which would add 18 mWh) and the twin must not count.
void packages(FakeDevice& d, int k) {
  const uint64_t p0 = 1'000'000 + 21'600'000ull * k;
  for (const char* zone : {"intel-rapl:0", "intel-rapl-mmio:0"}) d.setPackage(zone, p0);
  d.setPackage("intel-rapl:0:0", 3 * p0, 1ull << 40, "core");
  d.setPackage("intel-rapl:1", 2'000'000 + 14'400'000ull * k, 1ull << 40, "package-1");
}

// Interval k: the machine is busy 400 ticks, process 42 runs 200 of them.
void cpu(FakeDevice& d, int k) {
  d.setBusy(1000 + 400 * k);
  d.setProcess(kPid, 5000, 100 + 200 * k);
}

// The starting tree, and the k-th measured interval: 10 mWh, of which process 42 uses half.
void start(FakeDevice& d) { packages(d, 0), cpu(d, 0); }
Step interval(int k) {
  return [k](FakeDevice& d) { packages(d, k), cpu(d, k); };
}
Step both(Step a, Step b) {
  return [a, b](FakeDevice& d) { a(d), b(d); };
}

struct Scenario {
  const char* name;
  std::vector<Step> samples;  // each changes the tree, then kelo-powerd --once runs
  Totals expected;            // in the last report
  const char* model = "package";
  uint64_t skipped = 0;  // malformed journal lines
  std::size_t open = 0;  // intervals still open
  std::vector<std::string> args = {};
};

const Scenario kScenarios[] = {
    // 10 mWh, process 42 half of the busy time: 5 mWh, all to its one interval.
    {"OneIntervalTakesTheWholeProcessShare",
     {[](FakeDevice& d) { start(d), d.announce(kPid, "start", "com.a", 1, 1); }, interval(1)},
     {{"com.a/1", 5.0}}, "package", 0, 1},
    // The same 5 mWh in two equal parts.
    {"TwoIntervalsOfOneProcessSplitItsShare",
     {[](FakeDevice& d) {
        start(d), d.announce(kPid, "start", "com.a", 1, 1), d.announce(kPid, "start", "com.b", 4, 2);
      },
      interval(1)},
     {{"com.a/1", 2.5}, {"com.b/4", 2.5}}, "package", 0, 2},
    // (262,143,328,850 - 262,143,000,000) + 35,671,150 = 36,000,000 µJ = 10 mWh; half: 5.
    {"ACounterWrapsAtItsRange",
     {[](FakeDevice& d) {
        d.setPackage("intel-rapl:0", 262'143'000'000, 262'143'328'850);
        cpu(d, 0), d.announce(kPid, "start", "com.a", 1, 1);
      },
      [](FakeDevice& d) { d.setPackage("intel-rapl:0", 35'671'150, 262'143'328'850), cpu(d, 1); }},
     {{"com.a/1", 5.0}}, "package", 0, 1},
    // No package domain: 200 ticks = 2 s at 18 W = 36 J = 10 mWh.
    {"WithoutPackageDomainsCpuSecondsTimesWatts",
     {[](FakeDevice& d) { cpu(d, 0), d.announce(kPid, "start", "com.a", 1, 1); },
      [](FakeDevice& d) { cpu(d, 1); }},
     {{"com.a/1", 10.0}}, "cpu-watts", 0, 1, {"--cpu-watts", "18"}},
    // A FIFO where the counter was: 2 s at the default 10 W = 20 J = 5.5556 mWh.
    {"AnUnreadableCounterSwitchesToCpuWatts",
     {[](FakeDevice& d) { start(d), d.announce(kPid, "start", "com.a", 1, 1); },
      [](FakeDevice& d) {
        for (const std::string zone : {"intel-rapl:0", "intel-rapl-mmio:0"}) {
          const std::string counter = d.root() + "/sys/class/powercap/" + zone + "/energy_uj";
          ::unlink(counter.c_str());
          ::mkfifo(counter.c_str(), 0644);
        }
        cpu(d, 1);
      }},
     {{"com.a/1", 20 / 3.6}}, "cpu-watts", 0, 1},
    // Pid 42 now names a process started later: the announcer ended, its interval closed, its
    // last interval's energy is unknown. A start sent (in 1970) before the new process existed
    // came from an earlier holder of the pid and opens nothing.
    {"AReusedPidIsNotTheAnnouncer",
     {[](FakeDevice& d) { start(d), d.announce(kPid, "start", "com.a", 1, 1); },
      [](FakeDevice& d) {
        packages(d, 1), d.setBusy(1400), d.setProcess(kPid, 9000, 900);
        d.append(FakeDevice::event(kPid, "start", "com.b", 1, 2, 1000.0) + "\n");
      }},
     {}, "package", 0, 0},
    {"AProcessWhoseStatVanishedClosesItsIntervals",
     {[](FakeDevice& d) { start(d), d.announce(kPid, "start", "com.a", 1, 1); },
      [](FakeDevice& d) { packages(d, 1), d.setBusy(1400), d.removeProcess(kPid); }},
     {}, "package", 0, 0},
    // Both intervals ran in the measured one (com.a until its stop, com.b from its start): 2.5
    // each. The rest of the rotated journal is read before the new one; the garbage is skipped.
    {"ARotatedJournalIsFinishedFirst",
     {[](FakeDevice& d) { start(d), d.announce(kPid, "start", "com.a", 1, 1); },
      both(interval(1),
           [](FakeDevice& d) {
             d.announce(kPid, "stop", "com.a", 1, 1), d.announce(kPid, "start", "com.b", 2, 2);
             d.rotateJournal();
             d.append("{\"pid\": 42, \"event\": \"start\", \"bundleID\": \n");
             d.announce(kPid, "stop", "com.b", 2, 2);
           })},
     {{"com.a/1", 2.5}, {"com.b/2", 2.5}}, "package", 1, 0},
    // A line still being written when the first sample reads is taken whole by the second.
    {"ALineStillBeingWrittenWaitsForItsEnd",
     {[](FakeDevice& d) {
        start(d), d.announce(kPid, "start", "com.a", 1, 1);
        d.append(FakeDevice::event(kPid, "start", "com.b", 3, 2).substr(0, 40));
      },
      both(interval(1),
           [](FakeDevice& d) {
             d.append(FakeDevice::event(kPid, "start", "com.b", 3, 2).substr(40) + "\n");
           })},
     {{"com.a/1", 2.5}, {"com.b/3", 2.5}}, "package", 0, 2},
    // The stopAll closes com.a after it ran in interval 1 (5 mWh); interval 2 adds nothing. A
    // stop with another sequence number closes nothing; the stopAll closes com.c as well.
    {"StopAllClosesEverythingOfTheProcess",
     {[](FakeDevice& d) {
        start(d), d.announce(kPid, "start", "com.a", 1, 1), d.announce(kPid, "start", "com.c", 1, 3);
        d.announce(kPid, "stop", "com.c", 1, 4);
      },
      both(interval(1), [](FakeDevice& d) { d.announce(kPid, "stopAll"); }), interval(2)},
     {{"com.a/1", 2.5}, {"com.c/1", 2.5}}, "package", 0, 0},
    // Of 400 busy ticks, 42 runs 200 on com.a (5 mWh) and 43 runs 100 on com.b (2.5 mWh); 44
    // runs 100 with no work open (its com.c stopped before the interval): not attributed.
    {"EachProcessTakesItsShareOfTheBusyTime",
     {[](FakeDevice& d) {
        start(d), d.setProcess(43, 6000, 50), d.setProcess(44, 7000, 10);
        d.announce(kPid, "start", "com.a", 1, 1), d.announce(43, "start", "com.b", 4, 1);
        d.announce(44, "start", "com.c", 1, 1), d.announce(44, "stop", "com.c", 1, 1);
      },
      both(interval(1), [](FakeDevice& d) { d.setProcess(43, 6000, 150), d.setProcess(44, 7000, 110); })},
     {{"com.a/1", 5.0}, {"com.b/4", 2.5}}, "package", 0, 2},
    // Process 45 began after the first sample (its start, 1e9 + 1 s after boot, is past the
    // first sample's uptime of 1e9 s): all its 100 ticks are in the interval, 100 / 400 of
    // 10 mWh = 2.5.
    {"AProcessBornDuringTheIntervalCountsFromItsStart",
     {[](FakeDevice& d) { start(d), d.announce(kPid, "start", "com.a", 1, 1); },
      both(interval(1),
           [](FakeDevice& d) {
             d.setUptime(FakeDevice::kUptime + 5);
             d.setProcess(45, (FakeDevice::kUptime + 1) * FakeDevice::kTicksPerSecond, 100);
             d.append(FakeDevice::event(45, "start", "com.d", 3, 1, wallClock()) + "\n");
           })},
     {{"com.a/1", 5.0}, {"com.d/3", 2.5}}, "package", 0, 2},
};

ToolRun powerd(const FakeDevice& device, const std::vector<std::string>& extra = {}) {
  std::vector<std::string> args = {KELO_POWERD_PATH, "--root", device.root(), "--once"};
  args.insert(args.end(), extra.begin(), extra.end());
  return runTool(args);
}

Value reportOf(const FakeDevice& d) { return platform::parseJson(Sandbox::readFile(d.reportPath())); }
Value stateOf(const FakeDevice& d) { return platform::parseJson(Sandbox::readFile(d.statePath())); }

Totals totalsOf(const FakeDevice& d) {
  Totals out;
  const Value report = reportOf(d);
  const Value* entries = report.find("BLMEnergyForKelo");
  for (const Value& e : entries != nullptr ? entries->asArray() : Value::Array{}) {
    out[e.find("bundleID")->asString() + "/" + std::to_string(e.find("updateType")->integerValue())] =
        e.find("energy_mWh")->doubleValue();
  }
  return out;
}

int64_t referenceDateOf(const FakeDevice& d) {
  return reportOf(d).find("BLMEnergyReferenceDate")->integerValue();
}

class PowerdTest : public ::testing::Test {
 protected:
  TempDir dir_{"kelo-powerd-test"};
  FakeDevice device_{dir_.path()};
};

TEST(PowerdScenarios, EndWithTheHandComputedTotals) {
  for (const Scenario& s : kScenarios) {
    SCOPED_TRACE(s.name);
    TempDir dir("kelo-powerd-scenario");
    FakeDevice device(dir.path());
    for (const Step& step : s.samples) {
      step(device);
      const ToolRun r = powerd(device, s.args);
      ASSERT_EQ(r.exitCode, 0) << r.err;
    }
    const Totals got = totalsOf(device);
    ASSERT_EQ(got.size(), s.expected.size());
    for (const auto& [key, mwh] : s.expected) EXPECT_NEAR(got.at(key), mwh, 1e-9) << key;
    const Value report = reportOf(device);
    EXPECT_EQ(report.find("KeloEnergyModel")->asString(), s.model);
    EXPECT_EQ(report.find("BLMBatteryCapacity"), nullptr);
    const Value state = stateOf(device);
    EXPECT_EQ(state.find("skippedLines")->integerValue(), static_cast<int64_t>(s.skipped));
    std::size_t open = 0;
    for (const Value& p : state.find("processes")->asArray()) open += p.find("open")->asArray().size();
    EXPECT_EQ(open, s.open);
  }
}

// Kept state continues the epoch; a lost or corrupt one begins a new epoch with a later date,
// counted from zero again.
TEST_F(PowerdTest, StateCarriesTheEpochAndLosingItBeginsANewOne) {
  start(device_);
  device_.announce(kPid, "start", "com.a", 1, 1);
  ASSERT_EQ(powerd(device_).exitCode, 0);
  const int64_t date = referenceDateOf(device_);
  EXPECT_NEAR(static_cast<double>(date), wallClock(), 60);
  int k = 0;
  for (; k < 2; interval(++k)(device_)) ASSERT_EQ(powerd(device_).exitCode, 0);
  ASSERT_EQ(powerd(device_).exitCode, 0);
  EXPECT_EQ(referenceDateOf(device_), date);
  EXPECT_NEAR(totalsOf(device_)["com.a/1"], 10.0, 1e-9);  // 5 + 5

  int64_t previous = date;
  for (const char* loss : {"removed", "corrupt"}) {
    SCOPED_TRACE(loss);
    const bool corrupt = std::string(loss) == "corrupt";
    if (corrupt) {
      Sandbox::writeFile(device_.statePath(), "{\"version\": 1, \"referenceDate\": ");
    } else {
      ::unlink(device_.statePath().c_str());
    }
    const ToolRun first = powerd(device_);
    ASSERT_EQ(first.exitCode, 0);
    EXPECT_GT(referenceDateOf(device_), previous);
    previous = referenceDateOf(device_);
    // The first sample of an epoch has no interval behind it; the next one measures 5 mWh (the
    // journal is read again from its start, so com.a is open).
    EXPECT_TRUE(totalsOf(device_).empty());
    interval(++k)(device_);
    ASSERT_EQ(powerd(device_).exitCode, 0);
    EXPECT_NEAR(totalsOf(device_)["com.a/1"], 5.0, 1e-9);
    EXPECT_EQ(first.err.find("powerd-state.json") != std::string::npos, corrupt) << first.err;
    EXPECT_EQ(Sandbox::exists(device_.statePath() + ".corrupt"), corrupt);
  }
}

// The library, announcing through its own journal writer, reads the report kelo-powerd makes and
// charges its pools from it.
TEST(PowerdWithTheLibrary, RefreshAndReadingsChargeWhatThePowerMonitorMeasured) {
  Sandbox sandbox;
  sandbox.install();
  FakeDevice device(sandbox.rootPath());
  const int self = static_cast<int>(::getpid());
  device.setBusy(1000), device.setProcess(self, 5000, 100);
  device.setBattery(0, 4'000'000, 3'850'000);  // 4 Ah at 3.85 V: 15,400 mWh

  AmpvexStub* stub = AmpvexStub::instance();  // its first refresh finds no report
  energyStartLogging("com.example.app", 1, 7);
  energyStartLogging("com.example.dl", 4, 8);
  stub->getBatteryCapacity();  // waits for the queue, so both events are in the journal
  ASSERT_EQ(powerd(device, {"--cpu-watts", "18"}).exitCode, 0);

  // 200 ticks at 18 W: 36 J = 10 mWh, 5 to each interval.
  device.setBusy(1400), device.setProcess(self, 5000, 300);
  ASSERT_EQ(powerd(device, {"--cpu-watts", "18"}).exitCode, 0);
  energyConsumedRefresh();  // a new reference date: the pools reset and take the 5 mWh in full
  EXPECT_EQ(stub->energyConsumedForFetch(), 5);
  EXPECT_EQ(energyConsumedForBackgroundDownload(), 5);
  EXPECT_DOUBLE_EQ(stub->getBatteryCapacity(), 15400.0);

  // Another 300 ticks: 54 J = 15 mWh. The download stopped during this interval, so it still
  // takes half: 12.5 mWh each in all, charged as 12, so each diff is 12 - 5 = 7.
  energyStopLogging("com.example.dl", 4, 8);
  stub->getBatteryCapacity();
  device.setBusy(1700), device.setProcess(self, 5000, 600);
  ASSERT_EQ(powerd(device, {"--cpu-watts", "18"}).exitCode, 0);
  energyConsumedRefresh();
  EXPECT_EQ(stub->energyConsumedForFetch(), 7);
  EXPECT_EQ(energyConsumedForBackgroundDownload(), 7);
  EXPECT_EQ(stub->energyConsumedForFetch(), 0);  // consumed
}

}  // namespace
}  // namespace kelo::test
