#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kelo/AmpvexStub.h"
#include "kelo/AppLaunchStatsCumu.h"
#include "kelo/KeloConfigurator.h"
#include "kelo/KeloLogger.h"
#include "kelo/kelo.h"
#include "platform/Json.h"
#include "platform/Metrics.h"
#include "platform/Preferences.h"
#include "tests/config/ConfigTestSupport.h"
#include "tests/logging/LogFiles.h"
#include "tests/support/Sandbox.h"

namespace kelo {
namespace {

namespace fs = std::filesystem;
using test::Sandbox;

constexpr const char* kReportName = "com.vorn.Kelo.CUMUNotificationReport";
constexpr const char* kHostile = "%n%s%s%x%p";

std::string notifyFolder(const Sandbox& sandbox) { return sandbox.rootPath() + "/run/kelo/notify"; }

// Every path under `folder`, relative to it.
std::vector<std::string> tree(const std::string& folder) {
  std::vector<std::string> paths;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(folder, ec); !ec && it != fs::end(it);
       it.increment(ec)) {
    paths.push_back(fs::relative(it->path(), folder).string());
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

mode_t modeOf(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

class SecurityTest : public ::testing::Test {
 protected:
  void install(platform::Overrides o = {}) {
    sandbox_.install(std::move(o));
    test::installShippedBundle(sandbox_);
  }
  std::string domain(const std::string& name) const {
    return sandbox_.homePath() + "/Library/Preferences/" + name + ".json";
  }
  std::string liveLog() const {
    return sandbox_.homePath() + "/Library/Logs/KeloLoggingDetailed.kelotest";
  }
  std::string diagnostics() const {
    return sandbox_.homePath() + "/Library/Logs/Wreckbox/DiagnosticLogs";
  }
  Sandbox sandbox_;
};

TEST_F(SecurityTest, WithAnOpenUmaskNothingCreatedIsWritableByOthers) {
  install();
  const mode_t previous = ::umask(0);
  KeloLogger* logger = KeloLogger::instance();
  logger->addDataSource(KeloConfigurator::sharedInstance());  // writes the haven domains
  KELO_CLOGMODE(true);
  logger->logToFileCString("a line");
  logger->dumpAllLogs();
  platform::PreferencesDomain::open("com.example.mode")->write("k", Value::integer(1));
  platform::CumuClientAddValueForScalarKey("k", 1);
  energyStartLogging("com.a", 1, 1);
  energyConsumedForBackgroundDownload();  // the event is written
  reportCumuBackgroundDownload(1, 1);
  logger->logToFileCString(nullptr);
  ::umask(previous);

  EXPECT_EQ(modeOf(liveLog()), 0644u);
  const std::vector<std::string> dumps = test::filesIn(diagnostics());
  ASSERT_EQ(dumps.size(), 1u);
  EXPECT_EQ(modeOf(diagnostics() + "/" + dumps[0]), 0644u);
  for (const char* name : {"com.example.mode", "com.vorn.haven", "com.vorn.tessd"}) {
    EXPECT_EQ(modeOf(domain(name)), 0644u) << name;
  }
  EXPECT_EQ(modeOf(notifyFolder(sandbox_)), 0755u);
  EXPECT_EQ(modeOf(notifyFolder(sandbox_) + "/" + kReportName), 0644u);
  const std::string db = platform::metricsDatabasePath();
  ASSERT_TRUE(fs::exists(db + "-wal"));
  size_t checked = 0;
  for (const std::string& top : {sandbox_.homePath(), sandbox_.rootPath() + "/run"}) {
    for (const std::string& path : tree(top)) {
      EXPECT_EQ(modeOf(top + "/" + path) & 022, 0u) << path;
      ++checked;
    }
  }
  EXPECT_GT(checked, 15u);
}

TEST_F(SecurityTest, FormatDirectivesInDataAreWrittenLiterally) {
  install();
  test::writeBundle(sandbox_, test::kSystemBundle,
                    std::string(R"({"bundleIdentifier": ")") + kHostile +
                        R"(", "commonDefaults": {"globalPowerBudget": 10}})");
  Sandbox::writeFile(sandbox_.rootPath() + "/run/kelo/energy-report.json",
                     std::string(R"({"BLMBatteryCapacity": 1, "BLMEnergyReferenceDate": 5,
                                     "BLMEnergyForKelo": [{"bundleID": ")") +
                         kHostile + R"(", "updateType": 1, "energy_mWh": 5}]})");
  KeloLogger* logger = KeloLogger::instance();
  logger->addDataSource(KeloConfigurator::sharedInstance());
  logger->addDataSource(AmpvexStub::instance());
  test::startDetailedLogging();

  EXPECT_EQ(getStateForC(kHostile), -1);
  KELO_ConsoleLog(kHostile);
  KELO_CLOG("%s", kHostile);
  energyStartLogging(kHostile, 1, 1);
  energyConsumedRefresh();
  energyConsumedForNonDiscDownload();  // after the refresh
  AppLaunchStatsCumu* stats = AppLaunchStatsCumu::sharedInstance();
  stats->setCollectLaunchStats();
  stats->appFGLaunch(kHostile);
  stats->snapshot();
  platform::CumuClientSetValueForScalarKey(kHostile, 3);
  ASSERT_TRUE(
      platform::PreferencesDomain::open(kHostile)->write(kHostile, Value::string(kHostile)));
  logger->dumpAllLogs();
  logger->logToFileCString(nullptr);

  const std::string h = kHostile;
  std::vector<std::string> lines = test::lineTexts(liveLog());
  for (const std::string& dump : test::filesIn(diagnostics())) {
    for (std::string& text : test::lineTexts(diagnostics() + "/" + dump)) lines.push_back(text);
  }
  const auto has = [&](const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  };
  for (const std::string& line : {"Kelo keyword missing in dict " + h, h,
                                  "updatePowerBudgetPool fetch: " + h + " cost 5.000000",
                                  "bundle " + h, "AppID: " + h + " Diff 0 Value 5"}) {
    EXPECT_TRUE(has(line)) << line;
  }
  EXPECT_EQ(std::count(lines.begin(), lines.end(), h), 2)
      << "the console log and the format's argument";
  bool launchLine = false;
  for (const std::string& line : lines)
    launchLine |= line.rfind("app launch " + h + " diff", 0) == 0;
  EXPECT_TRUE(launchLine);
  const std::string journal =
      Sandbox::readFile(sandbox_.rootPath() + "/run/kelo/energy-events.jsonl");
  EXPECT_NE(journal.find("\"bundleID\":\"" + h + "\""), std::string::npos) << journal;
  const auto rows = platform::readMetricsDatabase(platform::metricsDatabasePath()).rows;
  EXPECT_NE(std::find(rows.begin(), rows.end(), std::make_pair(h, int64_t{3})), rows.end());
  EXPECT_EQ(test::Sandbox::readJson(domain(h)), Value::dictionary({{h, Value::string(h)}}));
}

TEST_F(SecurityTest, IdentifiersThatLookLikePathsStayData) {
  install();
  const std::vector<std::string> ids = {"../escaped", "a/b", "/abs/escaped", "..", "."};
  test::writeBundle(sandbox_, test::kSystemBundle,
                    R"({"bundleIdentifier": "../../escaped", "blacklist": ["../escaped"],
                        "commonDefaults": {"globalPowerBudget": 10}})");
  std::string entries;
  for (const std::string& id : ids) {
    entries += (entries.empty() ? "" : ",") + std::string(R"({"bundleID": ")") + id +
               R"(", "updateType": 4, "energy_mWh": 9})";
  }
  KeloLogger* logger = KeloLogger::instance();
  logger->addDataSource(KeloConfigurator::sharedInstance());
  logger->addDataSource(AmpvexStub::instance());
  test::startDetailedLogging();
  AmpvexStub::instance()->getBatteryCapacity();  // the start-up refresh found no report
  Sandbox::writeFile(sandbox_.rootPath() + "/run/kelo/energy-report.json",
                     R"({"BLMEnergyReferenceDate": 5, "BLMEnergyForKelo": [)" + entries + "]}");
  AppLaunchStatsCumu* stats = AppLaunchStatsCumu::sharedInstance();
  stats->setCollectLaunchStats();
  for (const std::string& id : ids) {
    energyStartLogging(id.c_str(), 4, 1);
    stats->appFGLaunch(id);
    stats->appPrewarm(id);
  }
  energyConsumedRefresh();
  stats->populatePrewarmZones([](const std::string&) { return true; });
  stats->newCycleWithApps({Value::string("../escaped")});
  logger->dumpAllLogs();
  logger->logToFileCString(nullptr);

  EXPECT_EQ(AmpvexStub::instance()->energyConsumedForBackgroundDownload(), 9 * 5)
      << "each identifier has its own record";
  EXPECT_EQ(KeloConfigurator::sharedInstance()->appBlackMap()->count("../escaped"), 1u);

  // Nothing named after an identifier, nothing outside the sandbox.
  for (const std::string& top : {sandbox_.homePath(), sandbox_.rootPath()}) {
    for (const std::string& path : tree(top)) {
      EXPECT_EQ(path.find("escaped"), std::string::npos) << path;
      EXPECT_NE(fs::path(path).filename(), "b") << path;
    }
  }
  const fs::path outside = fs::path(sandbox_.homePath()).parent_path();
  for (const char* name : {"escaped", "a", "abs"}) {
    EXPECT_FALSE(fs::exists(outside / name)) << name;
    EXPECT_FALSE(fs::exists(outside.parent_path() / name)) << name;
  }
  EXPECT_FALSE(fs::exists("/abs/escaped"));
}

}  // namespace
}  // namespace kelo
