#include <gtest/gtest.h>

#include <string>

#include "platform/Json.h"
#include "platform/Metrics.h"
#include "tests/support/Sandbox.h"
#include "tests/tools/ToolRunner.h"

namespace kelo::test {
namespace {

class KeloSimTest : public ::testing::Test {
 protected:
  ToolRun simulate(const std::string& root, int apps, int seed) {
    return runTool({KELO_SIM_PATH, "--apps", std::to_string(apps), "--seed", std::to_string(seed),
                    "--json", "--root", root, "--kelo", KELO_TOOL_PATH});
  }
  TempDir dir_{"kelo-sim-test"};
};

TEST_F(KeloSimTest, ADayDrivesEveryServiceAndTheSummaryMatchesTheirState) {
  const std::string root = dir_.path() + "/root";
  const ToolRun run = simulate(root, 20, 1);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  const Value summary = platform::parseJson(run.out);
  ASSERT_TRUE(summary.isDictionary()) << run.out;

  // Energy: the power monitor restarted its counters at noon, and the readings after that
  // restart still found energy: the pools were reset and charged anew.
  const Value* after = summary.find("energyAfterRestart");
  ASSERT_NE(after, nullptr);
  EXPECT_GT(after->find("fetch")->integerValue(), 0);
  EXPECT_GT(after->find("push")->integerValue(), 0);
  EXPECT_GE(summary.find("energy")->find("fetch")->integerValue(),
            after->find("fetch")->integerValue());

  // The second process's reports reached the collector.
  const Value* reports = summary.find("reports");
  EXPECT_EQ(reports->find("posted")->integerValue(), 8);
  EXPECT_EQ(reports->find("backgroundDownloads")->integerValue(), 6);
  EXPECT_GT(reports->find("nonDiscretionaryBytes")->integerValue(), 0);

  // The uploads are in the metrics store, with the values the summary shows.
  const std::string database = summary.find("metricsDatabase")->asString();
  const platform::MetricsReadResult stored = platform::readMetricsDatabase(database);
  ASSERT_TRUE(stored.ok) << stored.error;
  Value::Dictionary storedMap;
  for (const auto& [key, value] : stored.rows) storedMap[key] = Value::integer(value);
  EXPECT_EQ(Value::dictionary(storedMap), *summary.find("metrics"));
  const Value* fetch = summary.find("fetch");
  ASSERT_TRUE(storedMap.count("com.vorn.Kelo.fetch.any.triggered"));
  EXPECT_EQ(storedMap["com.vorn.Kelo.fetch.any.triggered"].integerValue(),
            fetch->find("attempts")->integerValue());
  EXPECT_EQ(storedMap["com.vorn.Kelo.push.total_requests"].integerValue(),
            summary.find("push")->find("attempts")->integerValue());
  EXPECT_EQ(storedMap["com.vorn.Kelo.prewarmHit"].integerValue(),
            summary.find("zones")->find("prewarmHits")->integerValue());
  EXPECT_TRUE(storedMap.count("com.vorn.Kelo.predictHitNone"));
  EXPECT_TRUE(storedMap.count("com.vorn.Kelo.avgBGDownloadSize"));

  // The three files exist, and hold what the services wrote.
  const Value* files = summary.find("files");
  const std::string live = files->find("liveLog")->asString();
  const std::string rotated = files->find("rotatedLog")->asString();
  const std::string dump = files->find("dump")->asString();
  ASSERT_TRUE(Sandbox::exists(live));
  ASSERT_TRUE(Sandbox::exists(rotated)) << rotated;
  ASSERT_TRUE(Sandbox::exists(dump)) << dump;
  EXPECT_NE(Sandbox::readFile(live).find("Deduct energy Fetch app"), std::string::npos);
  EXPECT_NE(Sandbox::readFile(live).find("Ampvex reset detected. reset pool"), std::string::npos);
  EXPECT_NE(Sandbox::readFile(rotated).find("previous boot"), std::string::npos);
  const std::string dumped = Sandbox::readFile(dump);
  EXPECT_NE(dumped.find("CONFIG-------->"), std::string::npos);
  EXPECT_NE(dumped.find("AmpvexStub Framework----->"), std::string::npos);
  EXPECT_NE(dumped.find("<-----AmpvexStub Framework"), std::string::npos);
}

TEST_F(KeloSimTest, TheSameSeedReplaysTheSameDay) {
  const ToolRun a = simulate(dir_.path() + "/a", 5, 42);
  const ToolRun b = simulate(dir_.path() + "/b", 5, 42);
  ASSERT_EQ(a.exitCode, 0) << a.err;
  ASSERT_EQ(b.exitCode, 0) << b.err;
  const Value x = platform::parseJson(a.out);
  const Value y = platform::parseJson(b.out);
  for (const char* part : {"energy", "fetch", "push", "zones", "metrics", "launches"}) {
    EXPECT_EQ(*x.find(part), *y.find(part)) << part;
  }
}

TEST_F(KeloSimTest, RefusesAFolderItDidNotMake) {
  const std::string root = dir_.path() + "/precious";
  Sandbox::writeFile(root + "/keep.txt", "mine");
  const ToolRun run = simulate(root, 2, 1);
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.err.find("refusing"), std::string::npos);
  EXPECT_EQ(Sandbox::readFile(root + "/keep.txt"), "mine");
}

}  // namespace
}  // namespace kelo::test
