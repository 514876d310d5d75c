#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "platform/Json.h"
#include "platform/Metrics.h"
#include "platform/Notify.h"
#include "platform/SerialQueue.h"
#include "tests/support/Sandbox.h"
#include "tests/tools/ToolRunner.h"

namespace kelo::test {
namespace {

namespace fs = std::filesystem;

class KeloToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    bundleDir_ = sandbox_.rootPath() + "/System/Library/Kelo/KeloConfiguration.bundle";
    fs::create_directories(bundleDir_);
    fs::copy(KELO_DEFAULT_BUNDLE, bundleDir_, fs::copy_options::recursive);
    Sandbox::writeFile(sandbox_.rootPath() + "/etc/kelo/device.json",
                       R"({"hw.machine": "x86_64"})");
  }

  ToolRun kelo(std::vector<std::string> args) {
    args.insert(args.begin(), {KELO_TOOL_PATH, "--root", sandbox_.rootPath(), "--home",
                               sandbox_.homePath()});
    return runTool(args);
  }

  Value bundleInfo() { return test::Sandbox::readJson(bundleDir_ + "/Info.json"); }

  Sandbox sandbox_;
  std::string bundleDir_;
};

std::string trimmed(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}

TEST_F(KeloToolTest, ConfigGetReadsAsTheConfiguratorDoesAndReportsWhatIsMissing) {
  // A key the model entry for this hardware does not replace reads as the bundle has it.
  const int64_t expected =
      bundleInfo().find("commonDefaults")->find("wifiChargerNoPrewarmSince")->integerValue();
  const ToolRun run = kelo({"config", "get", "wifiChargerNoPrewarmSince"});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(trimmed(run.out), std::to_string(expected));

  const ToolRun unknown = kelo({"config", "get", "noSuchKey"});
  EXPECT_EQ(unknown.exitCode, 3);
  EXPECT_NE(unknown.err.find("unknown configuration key"), std::string::npos);
  EXPECT_EQ(kelo({"config", "get", "globalpowerbudget"}).exitCode, 3);

  fs::remove_all(bundleDir_);
  const ToolRun none = kelo({"config", "get", "maxFetchApps"});
  EXPECT_EQ(none.exitCode, 3);
  EXPECT_NE(none.err.find("no configuration source"), std::string::npos);
}

TEST_F(KeloToolTest, ConfigDumpNamesTheSourceOfEachValue) {
  ASSERT_EQ(kelo({"defaults", "write", "com.vorn.Kelo", "overideConfig",
                  R"({"commonDefaults": {"maxFetchApps": 7}})"})
                .exitCode,
            0);
  const ToolRun run = kelo({"--json", "config", "dump"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  const Value dump = platform::parseJson(run.out);
  ASSERT_TRUE(dump.isDictionary()) << run.out;
  std::map<std::string, const Value*> byKey;
  for (const Value& k : dump.find("keys")->asArray()) byKey[k.find("key")->asString()] = &k;
  ASSERT_EQ(byKey.size(), 77u);
  EXPECT_EQ(byKey["maxFetchApps"]->find("value")->integerValue(), 7);
  EXPECT_EQ(byKey["maxFetchApps"]->find("source")->asString(), "override");
  EXPECT_EQ(byKey["wifiChargerConnectedAge"]->find("source")->asString(), "bundle");

  // Every key the model entry for this hardware names (and the override does not) comes from it.
  const Value info = bundleInfo();
  const Value* entry = info.find("productSpecific")->find("x86_64");
  ASSERT_NE(entry, nullptr);
  int checked = 0;
  for (const auto& [group, keys] : entry->asDictionary()) {
    for (const auto& [key, value] : keys.asDictionary()) {
      if (key == "maxFetchApps" || !byKey.count(key)) continue;
      EXPECT_EQ(byKey[key]->find("source")->asString(), "model entry") << key;
      EXPECT_EQ(byKey[key]->find("value")->integerValue(), value.integerValue()) << key;
      ++checked;
    }
  }
  EXPECT_GT(checked, 0);
}

TEST_F(KeloToolTest, ConfigCheckFindsUnknownMisplacedAndMistypedKeys) {
  const ToolRun good = kelo({"config", "check", bundleDir_});
  EXPECT_EQ(good.exitCode, 0) << good.out;
  EXPECT_NE(good.out.find("0 errors"), std::string::npos);

  const std::string bad = sandbox_.rootPath() + "/bad.bundle";
  Sandbox::writeFile(bad + "/Info.json", R"({
    "commonDefaults": {"maxFetchApps": "many", "fetchAppPowerBudget": 5, "maxfetchapps": 1,
                       "enableBudgeting": [true]},
    "whenToLaunch": {"allowTrending": true},
    "fetchBudget": {"noSuchKey": 1},
    "blacklist": ["com.a", 3]
  })");
  const ToolRun run = kelo({"config", "check", bad});
  EXPECT_EQ(run.exitCode, 1);
  for (const char* expected :
       {"commonDefaults.maxFetchApps: wrong type", "commonDefaults.fetchAppPowerBudget: key outside",
        "did you mean \"maxFetchApps\"", "commonDefaults.enableBudgeting: wrong type",
        "whenToLaunch: \"whenToLaunch\" belongs inside", "fetchBudget.noSuchKey: unknown key",
        "blacklist[1]"}) {
    EXPECT_NE(run.out.find(expected), std::string::npos) << expected << "\n" << run.out;
  }

  Sandbox::writeFile(bad + "/Info.json", "{\n  \"commonDefaults\": {,\n}");
  const ToolRun malformed = kelo({"config", "check", bad});
  EXPECT_EQ(malformed.exitCode, 1);
  EXPECT_NE(malformed.out.find("line 2"), std::string::npos) << malformed.out;

  EXPECT_EQ(kelo({"config", "check", sandbox_.rootPath() + "/nothing.bundle"}).exitCode, 3);
}

TEST_F(KeloToolTest, DefaultsWriteReadAndDeleteEveryKindOfValue) {
  const std::vector<std::pair<std::string, std::string>> writes = {
      {"count", "42"}, {"ratio", "2.5"}, {"flag", "true"}, {"name", "hello world"},
      {"dict", R"({"commonDefaults": {"maxFetchApps": 3}})"}};
  for (const auto& [key, value] : writes) {
    const ToolRun w = kelo({"defaults", "write", "com.example.test", key, value});
    ASSERT_EQ(w.exitCode, 0) << key << ": " << w.err;
  }
  EXPECT_EQ(trimmed(kelo({"defaults", "read", "com.example.test", "count"}).out), "42");
  EXPECT_EQ(trimmed(kelo({"defaults", "read", "com.example.test", "flag"}).out), "true");
  EXPECT_EQ(trimmed(kelo({"defaults", "read", "com.example.test", "name"}).out), "hello world");
  const Value all = platform::parseJson(kelo({"defaults", "read", "com.example.test"}).out);
  EXPECT_EQ(all.find("count")->type(), Value::Type::kInteger);
  EXPECT_EQ(all.find("ratio")->type(), Value::Type::kReal);
  EXPECT_EQ(all.find("dict")->find("commonDefaults")->find("maxFetchApps")->integerValue(), 3);

  EXPECT_EQ(kelo({"defaults", "delete", "com.example.test", "count"}).exitCode, 0);
  EXPECT_EQ(kelo({"defaults", "read", "com.example.test", "count"}).exitCode, 3);
  EXPECT_EQ(kelo({"defaults", "delete", "com.example.test", "count"}).exitCode, 3);

  const ToolRun malformed = kelo({"defaults", "write", "com.example.test", "d", "{\"a\": }"});
  EXPECT_EQ(malformed.exitCode, 2);
  EXPECT_NE(malformed.err.find("malformed"), std::string::npos);
  EXPECT_EQ(kelo({"defaults", "write", "com.example.test", "n", "x1", "--type", "int"}).exitCode, 2);
  EXPECT_EQ(kelo({"defaults", "read", "com.example.unknown"}).exitCode, 3);
  EXPECT_EQ(kelo({"defaults", "read", "../escape"}).exitCode, 2);
  EXPECT_EQ(kelo({"defaults", "write", "a/b", "k", "1"}).exitCode, 2);
}

TEST_F(KeloToolTest, ReportReachesAListenerInAnotherProcess) {
  sandbox_.install();
  platform::SerialQueue queue("test.reports");
  std::atomic<uint64_t> state{0};
  int token = 0;
  ASSERT_EQ(platform::notify_register_dispatch(
                "com.vorn.Kelo.CUMUNotificationReport", &token, &queue,
                [&state](int t) {
                  uint64_t s = 0;
                  platform::notify_get_state(t, &s);
                  state = s;
                }),
            platform::kNotifyStatusOk);
  auto waitForState = [&state](uint64_t expected) {
    for (int i = 0; i < 5000 && state.load() != expected; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return state.load();
  };
  ASSERT_EQ(kelo({"report", "bgdownload", "100", "5"}).exitCode, 0);
  EXPECT_EQ(waitForState((100u << 4) | 1u | (5ull << 48)), (100u << 4) | 1u | (5ull << 48));
  ASSERT_EQ(kelo({"report", "nondisc", "7", "3"}).exitCode, 0);
  EXPECT_EQ(waitForState((7u << 4) | 2u | (3ull << 48)), (7u << 4) | 2u | (3ull << 48));
  platform::notify_cancel(token);

  EXPECT_EQ(kelo({"report", "bgdownload", "abc", "5"}).exitCode, 2);
  EXPECT_EQ(kelo({"report", "bgdownload", "1", "70000"}).exitCode, 2);
  EXPECT_EQ(kelo({"report", "upload", "1", "1"}).exitCode, 2);
}

TEST_F(KeloToolTest, MetricsPrintsTableJsonAndPrometheus) {
  EXPECT_EQ(kelo({"metrics"}).exitCode, 3);
  sandbox_.install();
  platform::CumuClientSetValueForScalarKey("com.vorn.Kelo.fetch.denied", 5);
  platform::CumuClientAddValueForScalarKey("com.vorn.Kelo.push.denied", 3);
  platform::CumuClientAddValueForScalarKey("com.vorn.Kelo.push.denied", 3);

  const Value json = platform::parseJson(kelo({"metrics", "--format", "json"}).out);
  EXPECT_EQ(json.find("com.vorn.Kelo.fetch.denied")->integerValue(), 5);
  EXPECT_EQ(json.find("com.vorn.Kelo.push.denied")->integerValue(), 6);
  const ToolRun prometheus = kelo({"metrics", "--format", "prometheus"});
  EXPECT_NE(prometheus.out.find("\ncom_vorn_Kelo_push_denied 6\n"), std::string::npos)
      << prometheus.out;
  EXPECT_NE(prometheus.out.find("# HELP com_vorn_Kelo_fetch_denied com.vorn.Kelo.fetch.denied"),
            std::string::npos);
  EXPECT_NE(kelo({"metrics"}).out.find("com.vorn.Kelo.fetch.denied"), std::string::npos);
  EXPECT_EQ(kelo({"metrics", "--format", "xml"}).exitCode, 2);
}

TEST_F(KeloToolTest, LogsFindAndTailTheLiveLog) {
  const std::string logs = sandbox_.homePath() + "/Library/Logs/";
  Sandbox::writeFile(logs + "KeloLoggingDetailed.schedd", "one\ntwo\nthree\nfour\n");
  const ToolRun tail = kelo({"logs", "tail", "-n", "2", "--process", "schedd"});
  EXPECT_EQ(tail.exitCode, 0);
  EXPECT_EQ(tail.out, "three\nfour\n");
  EXPECT_EQ(kelo({"logs", "tail", "-n", "1"}).out, "four\n");
  EXPECT_NE(kelo({"logs", "path"}).out.find("KeloLoggingDetailed.schedd"), std::string::npos);
  EXPECT_EQ(kelo({"logs", "tail", "--process", "nobody"}).exitCode, 3);
}

TEST_F(KeloToolTest, UsageErrorsHaveTheirOwnExitCode) {
  EXPECT_EQ(kelo({}).exitCode, 2);
  EXPECT_EQ(kelo({"frobnicate"}).exitCode, 2);
  EXPECT_EQ(kelo({"config"}).exitCode, 2);
  EXPECT_EQ(kelo({"config", "get"}).exitCode, 2);
  EXPECT_EQ(kelo({"--help"}).exitCode, 0);
}

}  // namespace
}  // namespace kelo::test
