// kelo-powerd's attribution, scenario by scenario: `--once` samples on device trees written by
// hand, each ending with totals worked out in the comment beside its row.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/tools/PowerdTesting.h"

namespace kelo::test::powerd {
namespace {

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
     {{"com.a/1", 5.0}},
     "package",
     0,
     1},
    // The same 5 mWh in two equal parts.
    {"TwoIntervalsOfOneProcessSplitItsShare",
     {[](FakeDevice& d) {
        start(d), d.announce(kPid, "start", "com.a", 1, 1),
            d.announce(kPid, "start", "com.b", 4, 2);
      },
      interval(1)},
     {{"com.a/1", 2.5}, {"com.b/4", 2.5}},
     "package",
     0,
     2},
    // (262,143,328,850 - 262,143,000,000) + 35,671,150 = 36,000,000 µJ = 10 mWh; half: 5.
    {"ACounterWrapsAtItsRange",
     {[](FakeDevice& d) {
        d.setPackage("intel-rapl:0", 262'143'000'000, 262'143'328'850);
        cpu(d, 0), d.announce(kPid, "start", "com.a", 1, 1);
      },
      [](FakeDevice& d) { d.setPackage("intel-rapl:0", 35'671'150, 262'143'328'850), cpu(d, 1); }},
     {{"com.a/1", 5.0}},
     "package",
     0,
     1},
    // No package domain: 200 ticks = 2 s at 18 W = 36 J = 10 mWh.
    {"WithoutPackageDomainsCpuSecondsTimesWatts",
     {[](FakeDevice& d) { cpu(d, 0), d.announce(kPid, "start", "com.a", 1, 1); },
      [](FakeDevice& d) { cpu(d, 1); }},
     {{"com.a/1", 10.0}},
     "cpu-watts",
     0,
     1,
     {"--cpu-watts", "18"}},
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
     {{"com.a/1", 20 / 3.6}},
     "cpu-watts",
     0,
     1},
    // Pid 42 now names a process started later: the announcer ended, its interval closed, its
    // last interval's energy is unknown. A start sent (in 1970) before the new process existed
    // came from an earlier holder of the pid and opens nothing.
    {"AReusedPidIsNotTheAnnouncer",
     {[](FakeDevice& d) { start(d), d.announce(kPid, "start", "com.a", 1, 1); },
      [](FakeDevice& d) {
        packages(d, 1), d.setBusy(1400), d.setProcess(kPid, 9000, 900);
        d.append(FakeDevice::event(kPid, "start", "com.b", 1, 2, 1000.0) + "\n");
      }},
     {},
     "package",
     0,
     0},
    {"AProcessWhoseStatVanishedClosesItsIntervals",
     {[](FakeDevice& d) { start(d), d.announce(kPid, "start", "com.a", 1, 1); },
      [](FakeDevice& d) { packages(d, 1), d.setBusy(1400), d.removeProcess(kPid); }},
     {},
     "package",
     0,
     0},
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
     {{"com.a/1", 2.5}, {"com.b/2", 2.5}},
     "package",
     1,
     0},
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
     {{"com.a/1", 2.5}, {"com.b/3", 2.5}},
     "package",
     0,
     2},
    // The stopAll closes com.a after it ran in interval 1 (5 mWh); interval 2 adds nothing. A
    // stop with another sequence number closes nothing; the stopAll closes com.c as well.
    {"StopAllClosesEverythingOfTheProcess",
     {[](FakeDevice& d) {
        start(d), d.announce(kPid, "start", "com.a", 1, 1),
            d.announce(kPid, "start", "com.c", 1, 3);
        d.announce(kPid, "stop", "com.c", 1, 4);
      },
      both(interval(1), [](FakeDevice& d) { d.announce(kPid, "stopAll"); }), interval(2)},
     {{"com.a/1", 2.5}, {"com.c/1", 2.5}},
     "package",
     0,
     0},
    // Of 400 busy ticks, 42 runs 200 on com.a (5 mWh) and 43 runs 100 on com.b (2.5 mWh); 44
    // runs 100 with no work open (its com.c stopped before the interval): not attributed.
    {"EachProcessTakesItsShareOfTheBusyTime",
     {[](FakeDevice& d) {
        start(d), d.setProcess(43, 6000, 50), d.setProcess(44, 7000, 10);
        d.announce(kPid, "start", "com.a", 1, 1), d.announce(43, "start", "com.b", 4, 1);
        d.announce(44, "start", "com.c", 1, 1), d.announce(44, "stop", "com.c", 1, 1);
      },
      both(interval(1),
           [](FakeDevice& d) { d.setProcess(43, 6000, 150), d.setProcess(44, 7000, 110); })},
     {{"com.a/1", 5.0}, {"com.b/4", 2.5}},
     "package",
     0,
     2},
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
     {{"com.a/1", 5.0}, {"com.d/3", 2.5}},
     "package",
     0,
     2},
    // Lines of every wrong shape are skipped and counted; "other" events carry no work and are
    // neither. No start survives, so nothing is attributed.
    {"MalformedLinesAreSkippedAndCounted",
     {[](FakeDevice& d) {
        start(d);
        for (const std::string& line : std::vector<std::string>{
                 "[]", "{\"event\": \"start\"}", R"({"pid": -1, "event": "stopAll"})",
                 R"({"pid": 42, "event": "start", "bundleID": 5, "updateType": 1, "seqNum": 1})",
                 R"({"pid": 42, "event": "start", "bundleID": "a", "updateType": 1, "seqNum": -1})",
                 R"({"pid": 42, "event": "jump"})", R"({"pid": 42})", R"({"pid": 42, "event": 1})",
                 R"({"pid": 42, "time": "now", "event": "stopAll"})",
                 "{\"pid\": 42, \"event\": \"start\", \"bundleID\": \"\xff\", \"updateType\": 1, "
                 "\"seqNum\": 1}",
                 FakeDevice::event(kPid, "start", std::string(1025, 'x'), 1, 1),
                 R"({"pid": 42, "event": "other", "kind": 9})"}) {
          d.append(line + "\n");
        }
      },
      interval(1)},
     {},
     "package",
     11,
     0},
    // The package counters did not move: the process's CPU time buys nothing.
    {"AnIdlePackageAttributesNothing",
     {[](FakeDevice& d) { start(d), d.announce(kPid, "start", "com.a", 1, 1); },
      [](FakeDevice& d) { cpu(d, 1); }},
     {{"com.a/1", 0.0}},
     "package",
     0,
     1},
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
    for (const Value& p : state.find("processes")->asArray())
      open += p.find("open")->asArray().size();
    EXPECT_EQ(open, s.open);
  }
}

}  // namespace
}  // namespace kelo::test::powerd
