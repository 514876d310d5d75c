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
  ToolRun simulate(const std::string& root, int apps, int seed,
                   std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {KELO_SIM_PATH,
                                     "--apps",
                                     std::to_string(apps),
                                     "--seed",
                                     std::to_string(seed),
                                     "--json",
                                     "--root",
                                     root,
                                     "--kelo",
                                     KELO_TOOL_PATH};
    args.insert(args.end(), extra.begin(), extra.end());
    return runTool(args);
  }
  static int64_t at(const Value& v, std::initializer_list<const char*> path) {
    const Value* x = &v;
    for (const char* key : path) {
      x = x->find(key);
      if (x == nullptr) return -999999;
    }
    return x->integerValue();
  }
  TempDir dir_{"kelo-sim-test"};
};

TEST_F(KeloSimTest, ADayDrivesEveryServiceAndTheSummaryMatchesTheirState) {
  const std::string root = dir_.path() + "/root";
  const std::string plot = dir_.path() + "/day.svg";
  const ToolRun run = simulate(root, 20, 1, {"--plot", plot});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.err, "");  // no progress bar where standard error is no terminal
  EXPECT_NE(Sandbox::readFile(plot).find(">22:00<"), std::string::npos);
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

  // Every denial has one reason, and the zone rows count what the summary says they count.
  for (const char* category : {"fetch", "push"}) {
    int64_t reasons = 0;
    for (const char* reason :
         {"deniedDataBudget", "deniedEnergyBudget", "deniedPoorSignal", "deniedTooManyFetches"}) {
      if (summary.find(category)->find(reason)) reasons += at(summary, {category, reason});
    }
    EXPECT_EQ(reasons, at(summary, {category, "denied"})) << category;
  }
  int64_t slots = 0;
  int64_t minutes = 0;
  for (const auto& [zone, count] : summary.find("zones")->find("prediction")->asDictionary()) {
    slots += count.integerValue();
  }
  for (const auto& [zone, count] : summary.find("zones")->find("prewarm")->asDictionary()) {
    minutes += count.integerValue();
  }
  EXPECT_EQ(slots, at(summary, {"launchSlots"}));
  EXPECT_EQ(minutes, at(summary, {"prefetchLaunchMinutes"}));

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

// The configuration drives the decisions: each day runs under an override, as an operator's.
TEST_F(KeloSimTest, TheBudgetKeysBoundTheDaysEnergyAndDenials) {
  int64_t previousDenials = -1;
  for (const int budget : {2000, 600, 150}) {
    const ToolRun run = simulate(
        dir_.path() + "/b" + std::to_string(budget), 40, 3,
        {"--set", "enableBudgeting=1", "--set", "globalPowerBudget=" + std::to_string(budget)});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const Value s = platform::parseJson(run.out);
    const int64_t used = at(s, {"energy", "fetch"}) + at(s, {"energy", "push"});
    // Within the budget, allowing one task already under way.
    EXPECT_LE(used, budget + at(s, {"largestTask_mWh"})) << budget;
    EXPECT_EQ(at(s, {"budgets", "globalPowerBudget"}), budget);
    const int64_t denials =
        at(s, {"fetch", "deniedEnergyBudget"}) + at(s, {"push", "deniedEnergyBudget"});
    EXPECT_GT(denials, previousDenials) << budget;
    previousDenials = denials;
  }
  // A data budget: the day stops moving data once it is reached, by at most one task's worth.
  const ToolRun data = simulate(dir_.path() + "/data", 40, 3,
                                {"--set", "globalDataBudget=4000000", "--set", "maxFetchApps=2"});
  ASSERT_EQ(data.exitCode, 0) << data.err;
  const Value d = platform::parseJson(data.out);
  EXPECT_GT(at(d, {"fetch", "deniedDataBudget"}), 0);
  EXPECT_GT(at(d, {"push", "deniedDataBudget"}), 0);
  EXPECT_LE(at(d, {"dataBytes"}), 4000000 + 2 * 900 * 1024);
  EXPECT_EQ(at(d, {"budgets", "maxFetchApps"}), 2);
  // Budgeting off: nothing is denied for energy or data, but maxFetchApps still holds.
  const ToolRun off = simulate(
      dir_.path() + "/off", 40, 3,
      {"--set", "enableBudgeting=0", "--set", "globalPowerBudget=10", "--set", "maxFetchApps=1"});
  ASSERT_EQ(off.exitCode, 0) << off.err;
  const Value s = platform::parseJson(off.out);
  for (const char* c : {"fetch", "push"}) {
    EXPECT_EQ(at(s, {c, "deniedEnergyBudget"}) + at(s, {c, "deniedDataBudget"}), 0) << c;
  }
  EXPECT_GT(at(s, {"fetch", "deniedTooManyFetches"}), 0);
}

TEST_F(KeloSimTest, ASweepOfTheScoreCutoffChangesThePrewarmHitRate) {
  const std::string svg = dir_.path() + "/sweep.svg";
  const ToolRun run =
      runTool({KELO_SIM_PATH, "--apps", "30", "--json", "--root", dir_.path() + "/sweep", "--kelo",
               KELO_TOOL_PATH, "--sweep", "scoreCutoff=5,95", "--plot", svg});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  const Value sweep = platform::parseJson(run.out);
  const Value::Array& days = sweep.find("days")->asArray();
  ASSERT_EQ(days.size(), 2u);
  const double low = days[0].find("zones")->find("hitRate")->doubleValue();
  const double high = days[1].find("zones")->find("hitRate")->doubleValue();
  EXPECT_GT(low, high + 0.2);
  // The same seed offers the same work: only the prediction changed.
  EXPECT_EQ(*days[0].find("push"), *days[1].find("push"));
  EXPECT_GT(at(days[0], {"predictedSlots"}), at(days[1], {"predictedSlots"}));
  EXPECT_NE(Sandbox::readFile(svg).find("<polyline"), std::string::npos);
}

TEST_F(KeloSimTest, UsageErrorsExitWithTwoAndNameTheRightKey) {
  const std::string root = dir_.path() + "/usage";
  const struct {
    std::vector<std::string> args;
    std::string said;
  } cases[] = {
      {{"--apps", "10001"}, "10000"},
      {{"--set", "globalPowerBudgt=5"}, "\"globalPowerBudget\""},
      {{"--set", "scoreCutoff"}, "KEY=VALUE"},
      {{"--set", "maxFetchApps=1e+20"}, "64-bit"},
      {{"--sweep", "scoreCutof=1,2"}, "\"scoreCutoff\""},
      {{"--bogus"}, "bogus"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {KELO_SIM_PATH, "--root", root};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, 2) << c.args[0];
    EXPECT_NE(run.err.find(c.said), std::string::npos) << run.err;
  }
  const ToolRun version = runTool({KELO_SIM_PATH, "--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.out.rfind("kelo-sim ", 0), 0u) << version.out;
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
