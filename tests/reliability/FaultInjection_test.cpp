#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kelo/AmpvexStub.h"
#include "kelo/AppLaunchStatsCumu.h"
#include "kelo/KeloLogger.h"
#include "kelo/energy.h"
#include "kelo/logging.h"
#include "platform/Json.h"
#include "platform/Metrics.h"
#include "platform/Preferences.h"
#include "tests/logging/LogFiles.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/InMemoryPowerMonitor.h"
#include "tests/support/Sandbox.h"

namespace kelo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using platform::PreferencesDomain;
using test::FaultyFileSystem;
using test::filesIn;
using test::Sandbox;
using Op = FaultyFileSystem::Op;

// Waits up to ten seconds for `done`.
template <class F>
bool eventually(F done) {
  for (int i = 0; i < 1000 && !done(); ++i) std::this_thread::sleep_for(10ms);
  return done();
}

bool anyLineHas(const Sandbox& sandbox, const std::string& text) {
  for (const test::SystemLine& line : sandbox.systemLines()) {
    if (line.text.find(text) != std::string::npos) return true;
  }
  return false;
}

std::optional<int64_t> storedMetric(const std::string& key) {
  for (const auto& [k, v] : platform::readMetricsDatabase(platform::metricsDatabasePath()).rows) {
    if (k == key) return v;
  }
  return std::nullopt;
}

struct FaultySandbox {
  explicit FaultySandbox(platform::Overrides extra = {}) {
    extra.fileSystem = files;
    sandbox.install(std::move(extra));
  }
  std::string logs() const { return sandbox.homePath() + "/Library/Logs"; }
  std::string live() const { return logs() + "/KeloLoggingDetailed.kelotest"; }

  Sandbox sandbox;
  std::shared_ptr<FaultyFileSystem> files = std::make_shared<FaultyFileSystem>();
};

TEST(LoggingFaults, AFullDiskDropsLinesAndTheFirstLineAfterwardsIsWhole) {
  FaultySandbox s;
  KeloLogger* logger = KeloLogger::instance();
  logger->setLoggingMode(true);
  logger->logToFileCString(nullptr);  // returns once the switch ran
  (KELO_CLOG)("before %d", 1);
  // The disk fills in the middle of a line: ten bytes of it land, then nothing more fits.
  s.files->fail(Op::kWrite, ENOSPC, "/Library/Logs/", 10);
  for (int i = 0; i < 20; ++i) (KELO_CLOG)("while full %d", i);
  logger->dumpAllLogs();
  logger->logToFileCString(nullptr);  // returns once the dump ran
  s.files->heal();
  (KELO_CLOG)("after %d", 1);
  (KELO_CLOG)("after %d", 2);

  int cutLines = 0;
  EXPECT_EQ(test::lineTexts(s.live(), &cutLines),
            (std::vector<std::string>{"before 1", "after 1", "after 2"}));
  EXPECT_EQ(cutLines, 1) << "the cut line stays a line of its own";
  EXPECT_EQ(Sandbox::readLines(s.live())[1].size(), 10u);
  EXPECT_TRUE(logger->canWriteToFile());
  EXPECT_TRUE(s.sandbox.consoleLines().empty()) << "a dropped line is not a logger failure";
}

TEST(LoggingFaults, AFailedRotationIsReportedOnceAndTheOldFileIsAppendedTo) {
  FaultySandbox s;
  Sandbox::writeFile(s.live(), "previous process\n");
  s.files->fail(Op::kRename, EACCES, "DiagnosticLogs");
  KeloLogger* logger = KeloLogger::instance();
  logger->setLoggingMode(true);
  logger->logToFileCString("one");
  logger->setLoggingMode(false);
  logger->setLoggingMode(true);  // a later opening does not try again
  logger->logToFileCString("two");

  EXPECT_EQ(s.sandbox.consoleLines(),
            std::vector<std::string>{"Move Error was code: 13 - message: Permission denied"});
  int old = 0;
  EXPECT_EQ(test::lineTexts(s.live(), &old), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(Sandbox::readLines(s.live())[0], "previous process");
  EXPECT_EQ(old, 1);
  EXPECT_TRUE(filesIn(s.logs() + "/Wreckbox/DiagnosticLogs").empty());
}

TEST(LoggingFaults, MissingHomeAndLogFoldersAreMadeAgainWhenNeeded) {
  Sandbox sandbox;
  platform::Overrides o;
  o.homeDirectory = sandbox.homePath() + "/not/made/yet";
  sandbox.install(o);
  const std::string logs = *o.homeDirectory + "/Library/Logs";
  KeloLogger* logger = KeloLogger::instance();
  logger->setLoggingMode(true);
  logger->logToFileCString("first");
  EXPECT_EQ(test::lineTexts(logs + "/KeloLoggingDetailed.kelotest"),
            std::vector<std::string>{"first"});
  EXPECT_TRUE(PreferencesDomain::open("com.example.home")->write("k", Value::integer(1)));
  platform::CumuClientAddValueForScalarKey("k", 1);
  EXPECT_EQ(storedMetric("k"), 1);

  // Someone removes the whole log folder under the running logger.
  fs::remove_all(logs);
  logger->logToFileCString("into the removed file");
  logger->dumpAllLogs();
  logger->setLoggingMode(false);
  logger->setLoggingMode(true);
  logger->logToFileCString("second");
  EXPECT_EQ(test::lineTexts(logs + "/KeloLoggingDetailed.kelotest"),
            std::vector<std::string>{"second"});
  EXPECT_EQ(filesIn(logs + "/Wreckbox/DiagnosticLogs").size(), 1u) << "the dump";
  EXPECT_TRUE(sandbox.consoleLines().empty());
}

// Each failed step of a write (the disk full at once or part-way, at fsync as delayed allocation
// reports it, an I/O error, a refused rename) keeps the old file for every reader, leaves no
// temporary file or descriptor behind, says why once, and keeps the change staged.
TEST(PreferencesFaults, AFailedStepKeepsTheOldFileAndTheChangeStagedWithoutLeftovers) {
  FaultySandbox s;
  auto openDescriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  auto domain = PreferencesDomain::open("com.example.full");
  ASSERT_TRUE(domain->write("level", Value::integer(1)));
  const std::string before = Sandbox::readFile(domain->path());
  const auto descriptors = openDescriptors();
  const struct {
    Op op;
    int error;
    size_t fits;
  } faults[] = {{Op::kWrite, ENOSPC, 0}, {Op::kWrite, ENOSPC, 5}, {Op::kFsync, ENOSPC, 0},
                {Op::kFsync, EIO, 0},    {Op::kRename, EXDEV, 0}};
  for (size_t i = 0; i < std::size(faults); ++i) {
    SCOPED_TRACE(FaultyFileSystem::name(faults[i].op));
    s.files->fail(faults[i].op, faults[i].error, ".tmp", faults[i].fits);
    EXPECT_FALSE(domain->write("level", Value::integer(2)));
    s.files->heal();
    EXPECT_EQ(Sandbox::readFile(domain->path()), before);
    EXPECT_EQ(PreferencesDomain::open("com.example.full")->contents().find("level")->integerValue(),
              1);
    EXPECT_EQ(filesIn(PreferencesDomain::directory()),
              (std::vector<std::string>{"com.example.full.json", "com.example.full.json.lock"}));
    const auto lines = s.sandbox.systemLines();
    ASSERT_EQ(lines.size(), i + 1);
    EXPECT_NE(lines.back().text.find(std::strerror(faults[i].error)), std::string::npos);
  }
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_TRUE(domain->synchronize());
  EXPECT_EQ(test::Sandbox::readJson(domain->path()),
            Value::dictionary({{"level", Value::integer(2)}}));

  // Short writes are not failures: a device taking one byte per call still gets the whole file.
  s.files->fail(Op::kWrite, 0, ".tmp", 1);
  EXPECT_TRUE(domain->write("level", Value::integer(3)));
  s.files->heal();
  EXPECT_EQ(test::Sandbox::readJson(domain->path()),
            Value::dictionary({{"level", Value::integer(3)}}));
}

TEST(PreferencesFaults, AFolderThatCannotBeMadeFailsTheWriteUntilItCanBe) {
  FaultySandbox s;
  s.files->fail(Op::kMkdir, EACCES);
  s.files->fail(Op::kOpen, EACCES, s.sandbox.homePath());
  auto domain = PreferencesDomain::open("com.example.denied");
  EXPECT_FALSE(domain->write("k", Value::integer(7)));
  EXPECT_TRUE(anyLineHas(s.sandbox, "Permission denied"));
  EXPECT_EQ(domain->contents().find("k")->integerValue(), 7) << "kept staged";
  s.files->heal();
  EXPECT_TRUE(domain->synchronize());
  EXPECT_EQ(test::Sandbox::readJson(domain->path()), Value::dictionary({{"k", Value::integer(7)}}));
}

// The writer is killed before its 1st, 2nd, ... file operation until one write runs to its end.
TEST(PreferencesFaults, AWriterKilledAtAnyStepLeavesTheOldOrTheNewValueAndNoLeftovers) {
  FaultySandbox s;
  constexpr const char* kName = "com.example.crash";
  auto domain = PreferencesDomain::open(kName);
  ASSERT_TRUE(domain->write("other", Value::string("kept")));
  ASSERT_TRUE(domain->write("v", Value::integer(0)));
  constexpr int kKilled = 100;  // + the operation it was killed before

  int64_t old = 0;
  std::set<std::string> killedBefore;
  bool completed = false;
  for (int step = 1; step <= 100 && !completed; ++step) {
    SCOPED_TRACE("killed before step " + std::to_string(step));
    const int64_t next = step * 10;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      s.files->beforeStep(step, [](Op op, const std::string&) {
        ::_exit(kKilled + static_cast<int>(op));
      });
      ::_exit(PreferencesDomain::open(kName)->write("v", Value::integer(next)) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    const int code = WEXITSTATUS(status);
    ASSERT_TRUE(code == 0 || code >= kKilled) << code;
    completed = code == 0;
    if (!completed) killedBefore.insert(FaultyFileSystem::name(static_cast<Op>(code - kKilled)));

    const Value file = test::Sandbox::readJson(domain->path());
    ASSERT_TRUE(file.isDictionary()) << Sandbox::readFile(domain->path());
    ASSERT_NE(file.find("other"), nullptr);
    EXPECT_EQ(file.find("other")->asString(), "kept");
    const int64_t v = file.find("v")->integerValue();
    EXPECT_TRUE(v == old || v == next) << v;
    EXPECT_TRUE(!completed || v == next);

    old = v + 1;
    ASSERT_TRUE(domain->write("v", Value::integer(old)));
    EXPECT_EQ(filesIn(PreferencesDomain::directory()),
              (std::vector<std::string>{std::string(kName) + ".json",
                                        std::string(kName) + ".json.lock"}));
  }
  EXPECT_TRUE(completed);
  for (const char* op : {"open", "write", "fsync", "close", "rename"}) {
    EXPECT_EQ(killedBefore.count(op), 1u) << "never killed before a " << op;
  }
}

TEST(MetricsFaults, AFullDiskKeepsEveryValueAndWritesItOnceSpaceIsBack) {
  Sandbox sandbox;
  sandbox.install();
  platform::CumuClientAddValueForScalarKey("total", 1);
  ASSERT_EQ(storedMetric("total"), 1);

  // SQLite writes its files itself; a file size limit of one byte fills its disk.
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit roomy = limit;
  limit.rlim_cur = 1;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  for (int i = 1; i <= 20; ++i) {
    platform::CumuClientAddValueForScalarKey("total", 1);
    platform::CumuClientSetValueForScalarKey("level", i);
  }
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &roomy), 0);
  int warnings = 0;
  for (const test::SystemLine& line : sandbox.systemLines()) {
    if (line.priority == LOG_WARNING && line.text.rfind("metrics: ", 0) == 0) ++warnings;
  }
  EXPECT_EQ(warnings, 1) << "one line per failure episode";
  EXPECT_EQ(storedMetric("total"), 1) << "nothing reached the full disk";

  // Nothing else is written: the kept values arrive by themselves.
  EXPECT_TRUE(eventually(
      [] { return storedMetric("total") == 21 && storedMetric("level") == 20; }));
  platform::CumuClientAddValueForScalarKey("total", 1);
  EXPECT_EQ(storedMetric("total"), 22);
}

TEST(MetricsFaults, AMetricsFolderThatCannotBeMadeKeepsTheValuesUntilItCanBe) {
  FaultySandbox s;
  s.files->fail(Op::kMkdir, EACCES, "/Library/Metrics");
  platform::CumuClientAddValueForScalarKey("total", 5);
  platform::CumuClientSetValueForScalarKey("level", 3);
  platform::CumuClientAddValueForScalarKey("total", 6);
  EXPECT_FALSE(fs::exists(platform::metricsDatabasePath()));
  EXPECT_TRUE(anyLineHas(s.sandbox, "Permission denied"));
  s.files->heal();
  EXPECT_TRUE(
      eventually([] { return storedMetric("total") == 11 && storedMetric("level") == 3; }));
}

TEST(MetricsFaults, AThrowingSinkNeitherStopsTheUploadNorEscapes) {
  struct ThrowingSink : platform::MetricsSink {
    std::atomic<int> calls{0};
    void setValue(const std::string&, int64_t) override {
      ++calls;
      throw std::runtime_error("sink down");
    }
    void addValue(const std::string&, int64_t) override {
      ++calls;
      throw 7;
    }
  };
  Sandbox sandbox;
  auto sink = std::make_shared<ThrowingSink>();
  platform::Overrides o;
  o.metrics = sink;
  sandbox.install(o);
  AppLaunchStatsCumu* stats = AppLaunchStatsCumu::sharedInstance();
  stats->fetchAttemptIncrement();  // five set keys and one added key
  stats->pushAttemptIncrement();   // five added keys
  stats->newCycleWithApps({});
  stats->fetchAttemptIncrement();
  EXPECT_EQ(stats->snapshot().fetchAttempt, 1);
  EXPECT_EQ(sink->calls.load(), 2 + 6 + 5) << "the two totals of every upload, then each group";
  int lines = 0;
  for (const test::SystemLine& line : sandbox.systemLines()) {
    if (line.text.rfind("metrics: the installed metrics sink threw in ", 0) == 0) ++lines;
  }
  EXPECT_EQ(lines, sink->calls.load());
}

struct ScriptedMonitor : test::InMemoryPowerMonitor {
  std::atomic<bool> throwOnReport{false};
  std::atomic<bool> throwOnEvent{false};
  void logEvent(const char* bundleId, int16_t type, uint64_t seqNum, int32_t kind) override {
    if (throwOnEvent) throw std::runtime_error("monitor gone");
    InMemoryPowerMonitor::logEvent(bundleId, type, seqNum, kind);
  }
  std::optional<Value> reportEnergy(const void* selector) override {
    if (throwOnReport) throw 42;  // not even an exception type
    return InMemoryPowerMonitor::reportEnergy(selector);
  }
};

TEST(EnergyFaults, AMonitorAnsweringNothingGarbageOrThrowingLeavesTheServiceWorking) {
  using Monitor = test::InMemoryPowerMonitor;
  Sandbox sandbox;
  auto monitor = std::make_shared<ScriptedMonitor>();
  platform::Overrides o;
  o.powerMonitor = monitor;
  sandbox.install(o);
  constexpr double kDate = 1763700000.0;
  monitor->setReport(Monitor::report(3000, kDate, {{"com.a", 1, 10}}));
  AmpvexStub* stub = AmpvexStub::instance();
  EXPECT_EQ(stub->getBatteryCapacity(), 3000.0);

  const std::vector<std::optional<Value>> useless = {
      std::nullopt,
      Value::string("not a report"),
      Value::array({Value::integer(1)}),
      Value::dictionary({{"BLMBatteryCapacity", Value::string("full")},
                         {"BLMEnergyReferenceDate", Value::integer(1763700000)},
                         {"BLMEnergyForKelo", Value::dictionary({{"com.a", Value::integer(1)}})}}),
      Value::dictionary({{"BLMEnergyForKelo",
                          Value::array({Value::dictionary({{"bundleID", Value::array({})},
                                                           {"updateType", Value::string("1")},
                                                           {"energy_mWh", Value::real(5)}})})}}),
  };
  for (const std::optional<Value>& answer : useless) {
    monitor->setReport(answer);
    energyConsumedRefresh();
    EXPECT_EQ(stub->getBatteryCapacity(), 0.0);
    EXPECT_EQ(stub->energyConsumedForFetch(), 0);
    EXPECT_EQ(stub->startAmpvexLiteDate(), std::nullopt);
  }

  monitor->throwOnReport = true;
  monitor->throwOnEvent = true;
  energyConsumedRefresh();
  energyStartLogging("com.a", 1, 1);
  energyStopLogging("com.a", 1, 1);
  EXPECT_EQ(energyConsumedForBackgroundDownload(), 0);
  EXPECT_TRUE(anyLineHas(sandbox, "energy refresh failed"));
  EXPECT_TRUE(anyLineHas(sandbox, "monitor gone"));

  monitor->throwOnReport = false;
  monitor->throwOnEvent = false;
  monitor->setReport(Monitor::report(3000, kDate, {{"com.a", 1, 30}}));
  energyConsumedRefresh();
  EXPECT_EQ(stub->energyConsumedForFetch(), 30) << "after the resets the amount counts whole";
  energyStartLogging("com.a", 1, 2);
  stub->getBatteryCapacity();
  EXPECT_EQ(monitor->events().size(), 1u);
}

}  // namespace
}  // namespace kelo
