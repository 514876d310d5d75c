// kelo-powerd run as a user would run it, `--once` at a time, on device trees written by hand.
// Every expected amount is worked out in the comment beside it: 1 mWh = 3.6 J = 3,600,000 µJ,
// 100 clock ticks = 1 CPU second.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
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
    // Lines of every wrong shape are skipped and counted; "other" events carry no work and are
    // neither. No start survives, so nothing is attributed.
    {"MalformedLinesAreSkippedAndCounted",
     {[](FakeDevice& d) {
        start(d);
        for (const std::string& line : std::vector<std::string>{
                 "[]", "{\"event\": \"start\"}", R"({"pid": -1, "event": "stopAll"})",
              R"({"pid": 42, "event": "start", "bundleID": 5, "updateType": 1, "seqNum": 1})",
              R"({"pid": 42, "event": "start", "bundleID": "a", "updateType": 1, "seqNum": -1})",
              R"({"pid": 42, "event": "jump"})", R"({"pid": 42, "time": "now", "event": "stopAll"})",
              "{\"pid\": 42, \"event\": \"start\", \"bundleID\": \"\xff\", \"updateType\": 1, "
              "\"seqNum\": 1}",
              FakeDevice::event(kPid, "start", std::string(1025, 'x'), 1, 1),
              R"({"pid": 42, "event": "other", "kind": 9})"}) {
          d.append(line + "\n");
        }
      },
      interval(1)},
     {}, "package", 9, 0},
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

TEST_F(PowerdTest, TheTextfileCarriesTheTotalsForTheCollector) {
  const std::string folder = dir_.path() + "/textfile";
  ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
  start(device_);
  device_.setBattery(50'000'000);  // µWh: 50,000 mWh
  device_.announce(kPid, "start", R"(com.\"q\"\\x)", 1, 1);  // com."q"\x
  device_.announce(kPid, "start", "com.b", 4, 2);
  for (int k = 0; k < 2; interval(++k)(device_)) {
    const ToolRun r = powerd(device_, {"--textfile", folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;
  }
  std::string samples;
  for (const std::string& line : Sandbox::readLines(folder + "/kelo_energy.prom")) {
    if (line.rfind("# HELP", 0) != 0) samples += line + "\n";
  }
  EXPECT_EQ(samples, "# TYPE kelo_energy_mwh_total counter\n"
                     "kelo_energy_mwh_total{bundle_id=\"com.\\\"q\\\"\\\\x\",update_type=\"1\"} 2.5\n"
                     "kelo_energy_mwh_total{bundle_id=\"com.b\",update_type=\"4\"} 2.5\n"
                     "# TYPE kelo_energy_reference_date_seconds gauge\n"
                     "kelo_energy_reference_date_seconds " +
                         std::to_string(referenceDateOf(device_)) +
                         "\n"
                         "# TYPE kelo_battery_capacity_mwh gauge\n"
                         "kelo_battery_capacity_mwh 50000\n"
                         "# TYPE kelo_powerd_journal_lines_skipped_total counter\n"
                         "kelo_powerd_journal_lines_skipped_total 0\n");
  EXPECT_EQ(reportOf(device_).find("BLMBatteryCapacity")->doubleValue(), 50000.0);
  // Nothing else is left in the collector's folder.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
}

// A tree where links, FIFOs and files of the wrong kind stand where powerd reads or writes: one
// message naming the path and the reason, never a hang or a crash.
TEST_F(PowerdTest, HostileTreesGetAMessageNamingThePath) {
  struct Case {
    const char* name;
    Step setup;
    int exitCode;
    const char* message;  // in standard error
  };
  const auto fifo = [](const std::string& path) {
    ::unlink(path.c_str());
    ::mkfifo(path.c_str(), 0644);
  };
  const Case cases[] = {
      {"JournalIsALink",
       [](FakeDevice& d) {
         ::unlink(d.journalPath().c_str());
         ::symlink("/etc/passwd", d.journalPath().c_str());
       },
       0, "energy-events.jsonl: is a symbolic link"},
      {"JournalIsAFifo", [&](FakeDevice& d) { fifo(d.journalPath()); }, 0,
       "energy-events.jsonl: is not a regular file"},
      {"StateIsAFifo",
       [&](FakeDevice& d) {
         Sandbox::writeFile(d.statePath(), "");
         fifo(d.statePath());
       },
       0, "powerd-state.json: is not a regular file; moved aside"},
      {"ReportFolderIsAFile",
       [](FakeDevice& d) {
         std::filesystem::remove_all(d.root() + "/run/kelo");
         Sandbox::writeFile(d.root() + "/run/kelo", "");
       },
       1, "energy-report.json: cannot create its temporary file: Not a directory"},
      {"ProcessStatIsGarbage",
       [](FakeDevice& d) {
         Sandbox::writeFile(d.root() + "/proc/42/stat", "42 (x) S 1 2");
         d.announce(kPid, "start", "com.a", 1, 1);
       },
       0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir("kelo-powerd-hostile");
    FakeDevice device(dir.path());
    start(device);
    c.setup(device);
    const ToolRun r = powerd(device);
    EXPECT_EQ(r.exitCode, c.exitCode) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find(c.message), r.err.rfind(c.message)) << "one message";
  }
}

// Without --once: a sample every interval until SIGTERM, which ends it with status 0.
TEST_F(PowerdTest, TheDaemonSamplesEveryIntervalUntilSigterm) {
  cpu(device_, 0);
  device_.announce(kPid, "start", "com.a", 1, 1);
  const pid_t daemon = ::fork();
  if (daemon == 0) {
    ::execl(KELO_POWERD_PATH, KELO_POWERD_PATH, "--root", device_.root().c_str(), "--interval",
            "0.1", "--cpu-watts", "18", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  const auto eventually = [](const std::function<bool()>& done) {
    for (int i = 0; i < 2000 && !done(); ++i) ::usleep(10000);
    return done();
  };
  EXPECT_TRUE(eventually([&] { return Sandbox::exists(device_.statePath()); }));
  // 200 ticks at 18 W: 36 J = 10 mWh, whichever sample sees them.
  device_.setProcess(kPid, 5000, 300);
  EXPECT_TRUE(eventually([&] { return totalsOf(device_)["com.a/1"] == 10.0; }));
  ::kill(daemon, SIGTERM);
  int status = 0;
  ASSERT_EQ(::waitpid(daemon, &status, 0), daemon);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(PowerdCommandLine, HelpIsAManualPageAndUsageErrorsExitTwo) {
  const ToolRun help = runTool({KELO_POWERD_PATH, "--help"});
  EXPECT_EQ(help.exitCode, 0);
  std::size_t at = 0;
  for (const char* section : {"NAME\n", "SYNOPSIS\n", "DESCRIPTION\n", "OPTIONS\n", "FILES\n",
                              "EXIT STATUS\n"}) {
    const std::size_t found = help.out.find(section, at);
    ASSERT_NE(found, std::string::npos) << section;
    at = found;
  }
  for (const char* option : {"--root DIR", "--interval SECONDS", "--once", "--cpu-watts WATTS",
                             "--textfile DIR", "/var/lib/kelo/powerd-state.json"}) {
    EXPECT_NE(help.out.find(option), std::string::npos) << option;
  }
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"--interval", "0"},
                                             {"--cpu-watts", "-1"},
                                             {"--root", "/nonexistent/root"},
                                             {"--bogus"},
                                             {"extra"}}) {
    std::vector<std::string> argv = {KELO_POWERD_PATH, "--once"};
    argv.insert(argv.end(), args.begin(), args.end());
    EXPECT_EQ(runTool(argv).exitCode, 2) << args[0];
  }
}

}  // namespace
}  // namespace kelo::test
