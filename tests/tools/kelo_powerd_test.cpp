// kelo-powerd run as a user would run it, on device trees written by hand: its epoch over
// restarts, the library reading its report, the textfile, hostile trees, the daemon loop and the
// command line.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "kelo/AmpvexStub.h"
#include "kelo/energy.h"
#include "tests/tools/PowerdTesting.h"

namespace kelo::test::powerd {
namespace {

class PowerdTest : public ::testing::Test {
 protected:
  TempDir dir_{"kelo-powerd-test"};
  FakeDevice device_{dir_.path()};
};

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
  device_.setBattery(50'000'000);                            // µWh: 50,000 mWh
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
  EXPECT_EQ(samples,
            "# TYPE kelo_energy_mwh_total counter\n"
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
       "energy-events.jsonl: is a FIFO, not a regular file"},
      {"StateIsAFifo",
       [&](FakeDevice& d) {
         Sandbox::writeFile(d.statePath(), "");
         fifo(d.statePath());
       },
       0, "powerd-state.json: is a FIFO, not a regular file; moved aside"},
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
  for (const char* section :
       {"NAME\n", "SYNOPSIS\n", "DESCRIPTION\n", "OPTIONS\n", "FILES\n", "EXIT STATUS\n"}) {
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
}  // namespace kelo::test::powerd
