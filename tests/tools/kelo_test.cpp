#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/Json.h"
#include "platform/Metrics.h"
#include "platform/Notify.h"
#include "platform/SerialQueue.h"
#include "tests/support/Sandbox.h"
#include "tests/tools/ToolRunner.h"

extern char** environ;

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
    args.insert(args.begin(),
                {KELO_TOOL_PATH, "--root", sandbox_.rootPath(), "--home", sandbox_.homePath()});
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
       {"commonDefaults.maxFetchApps: wrong type",
        "commonDefaults.fetchAppPowerBudget: key outside", "did you mean \"maxFetchApps\"",
        "commonDefaults.enableBudgeting: wrong type",
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
      {"count", "42"},
      {"ratio", "2.5"},
      {"flag", "true"},
      {"name", "hello world"},
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
  EXPECT_EQ(kelo({"defaults", "write", "com.example.test", "n", "x1", "--type", "int"}).exitCode,
            2);
  EXPECT_EQ(kelo({"defaults", "read", "com.example.unknown"}).exitCode, 3);
  EXPECT_EQ(kelo({"defaults", "read", "../escape"}).exitCode, 2);
  EXPECT_EQ(kelo({"defaults", "write", "a/b", "k", "1"}).exitCode, 2);
}

TEST_F(KeloToolTest, ReportReachesAListenerInAnotherProcess) {
  sandbox_.install();
  platform::SerialQueue queue("test.reports");
  std::atomic<uint64_t> state{0};
  int token = 0;
  ASSERT_EQ(
      platform::notify_register_dispatch("com.vorn.Kelo.CUMUNotificationReport", &token, &queue,
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
  platform::CumuClientSetValueForScalarKey("com.vorn.Kelo.predictHitNeg15M", 7);
  platform::CumuClientSetValueForScalarKey("com.vorn.Kelo.prewarmHitNeg15M", 4);
  platform::CumuClientSetValueForScalarKey("com.vorn.Kelo.prewarmHit", 2);
  platform::CumuClientSetValueForScalarKey("com.vorn.Kelo.fetch.denied.poor_signal", 1);
  platform::CumuClientSetValueForScalarKey("com.vorn.Kelo.avgBGDownloadSize", 9);

  const Value json = platform::parseJson(kelo({"metrics", "--format", "json"}).out);
  EXPECT_EQ(json.find("com.vorn.Kelo.fetch.denied")->integerValue(), 5);
  EXPECT_EQ(json.find("com.vorn.Kelo.push.denied")->integerValue(), 6);
  const ToolRun prometheus = kelo({"metrics", "--format", "prometheus"});
  for (const char* line : {
           "# TYPE kelo_push_denied_total counter\nkelo_push_denied_total 6\n",
           "# TYPE kelo_avg_bg_download_size gauge\nkelo_avg_bg_download_size 9\n",
           "kelo_zone_launches_total{family=\"prediction\",zone=\"Neg15M\"} 7\n",
           "kelo_zone_launches_total{family=\"prewarm\",zone=\"Neg15M\"} 4\n",
           "kelo_prewarm_launches_total{outcome=\"hit\"} 2\n",
           "kelo_fetch_denials_by_reason_total{reason=\"poor_signal\"} 1\n",
       }) {
    EXPECT_NE(prometheus.out.find(line), std::string::npos) << line << prometheus.out;
  }
  // One HELP and one TYPE per family, before its samples.
  EXPECT_EQ(prometheus.out.find("# TYPE kelo_zone_launches_total"),
            prometheus.out.rfind("# TYPE kelo_zone_launches_total"));
  EXPECT_NE(prometheus.out.find("# HELP kelo_zone_launches_total "), std::string::npos);
  // The textfile collector's file holds the same, and nothing is left beside it.
  const std::string textfiles = sandbox_.homePath() + "/textfiles";
  fs::create_directories(textfiles);
  ASSERT_EQ(kelo({"metrics", "--textfile", textfiles}).exitCode, 0);
  EXPECT_EQ(Sandbox::readFile(textfiles + "/kelo.prom"), prometheus.out);
  EXPECT_EQ(std::distance(fs::directory_iterator(textfiles), fs::directory_iterator()), 1);
  EXPECT_EQ(kelo({"metrics", "--textfile", textfiles + "/missing"}).exitCode, 1);
  EXPECT_NE(kelo({"metrics"}).out.find("com.vorn.Kelo.fetch.denied"), std::string::npos);
  EXPECT_EQ(kelo({"metrics", "--format", "xml"}).exitCode, 2);
}

// An operator's override is checked against the configuration's keys before it is stored.
TEST_F(KeloToolTest, DefaultsWriteChecksTheOverride) {
  const struct {
    std::string value;
    bool force;
    int exitCode;
    std::string said;  // on standard error
  } cases[] = {
      {R"({"commonDefaults": {"globalPowerBugdet": 500}})", false, 2, "\"globalPowerBudget\""},
      {R"({"fetchBudget": {"fetchAppPowerBudget": "high"}})", false, 2, "wrong type"},
      {R"({"commonDefaults": {"maxFetchApps": 1e+20}})", false, 2, "64-bit"},
      {R"({"maxFetchApps": 3})", false, 2, "not a group"},
      {R"({"commonDefaults": {"globalPowerBugdet": 500}})", true, 0, ""},
      {R"({"commonDefaults": {"maxFetchApps": 3}})", false, 0, ""},
  };
  const std::string stored = sandbox_.homePath() + "/Library/Preferences/com.vorn.Kelo.json";
  for (const auto& c : cases) {
    fs::remove(stored);
    std::vector<std::string> args = {"defaults", "write", "com.vorn.Kelo", "overideConfig",
                                     c.value};
    if (c.force) args.push_back("--force");
    const ToolRun run = kelo(args);
    EXPECT_EQ(run.exitCode, c.exitCode) << c.value << run.err;
    EXPECT_NE(run.err.find(c.said), std::string::npos) << run.err;
    EXPECT_EQ(Sandbox::exists(stored), c.exitCode == 0) << c.value;
    // The stored one checks as it was written.
    const ToolRun check = kelo({"config", "check", "--override"});
    EXPECT_EQ(check.exitCode, c.exitCode == 0 ? (c.force ? 1 : 0) : 3) << c.value << check.out;
  }
  EXPECT_EQ(kelo({"config", "check"}).exitCode, 2);
}

// Read-only commands leave a simulated daemon's tree (bundle, override, logs, metrics store)
// exactly as it was: names, types, sizes, modes, times and bytes.
TEST_F(KeloToolTest, ReadOnlyCommandsChangeNothingOnDisk) {
  TempDir dir("kelo-read-only");
  const std::string root = dir.path() + "/root";
  const ToolRun sim = runTool({KELO_SIM_PATH, "--apps", "5", "--reports", "1", "--json", "--root",
                               root, "--kelo", KELO_TOOL_PATH, "--set", "maxFetchApps=3"});
  ASSERT_EQ(sim.exitCode, 0) << sim.err;
  auto snapshot = [&root] {
    std::string out;
    for (const auto& e : fs::recursive_directory_iterator(root)) {
      struct stat st;
      ::lstat(e.path().c_str(), &st);
      out += e.path().string() + " " + std::to_string(st.st_mode) + " " +
             std::to_string(st.st_size) + " " + std::to_string(st.st_mtim.tv_sec) + "." +
             std::to_string(st.st_mtim.tv_nsec) + "\n";
      if (e.is_regular_file()) out += Sandbox::readFile(e.path().string()) + "\n";
    }
    return out;
  };
  const std::string before = snapshot();
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"config", "get", "maxFetchApps"},
                                             {"config", "dump"},
                                             {"defaults", "read", "com.vorn.Kelo"},
                                             {"metrics"},
                                             {"metrics", "--format", "prometheus"},
                                             {"logs", "path"}}) {
    std::vector<std::string> args = {KELO_TOOL_PATH, "--root", root, "--home", root + "/home"};
    args.insert(args.end(), command.begin(), command.end());
    const ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, 0) << command.back() << ": " << run.err;
    const std::string after = snapshot();
    std::size_t at = 0;
    while (at < before.size() && at < after.size() && before[at] == after[at]) ++at;
    EXPECT_TRUE(after == before) << command.back() << " changed the tree at "
                                 << after.substr(at > 100 ? at - 100 : 0, 200);
    if (command.back() == "maxFetchApps") {
      EXPECT_EQ(trimmed(run.out), "3");
    }
  }
}

TEST_F(KeloToolTest, EveryCommandsHelpListsTheGlobalOptions) {
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"config", "get"},
                                             {"config", "check"},
                                             {"defaults", "write"},
                                             {"metrics"},
                                             {"logs", "tail"},
                                             {"report", "nondisc"}}) {
    std::vector<std::string> args = command;
    args.push_back("--help");
    const ToolRun help = kelo(args);
    EXPECT_EQ(help.exitCode, 0);
    for (const char* option : {"--root", "--home", "--json"}) {
      EXPECT_NE(help.out.find(option), std::string::npos) << command.back() << " " << option;
    }
  }
  const ToolRun version = runTool({KELO_TOOL_PATH, "--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.out.rfind("kelo ", 0), 0u) << version.out;
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

// tail -F: waits for a log that does not exist yet, then follows its name across rotation.
TEST_F(KeloToolTest, LogsTailFollowsTheNameAcrossRotation) {
  const std::string log = sandbox_.homePath() + "/Library/Logs/KeloLoggingDetailed.schedd";
  fs::create_directories(fs::path(log).parent_path());
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  const std::vector<std::string> args = {
      KELO_TOOL_PATH, "--root", sandbox_.rootPath(), "--home", sandbox_.homePath(), "logs",
      "tail",         "-F",     "--process",         "schedd"};
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  std::string seen;
  auto waitFor = [&](const std::string& text) {
    for (int i = 0; i < 100 && seen.find(text) == std::string::npos; ++i) {
      pollfd p{out[0], POLLIN, 0};
      if (poll(&p, 1, 100) == 1) {
        char buffer[256];
        const ssize_t n = read(out[0], buffer, sizeof buffer);
        if (n > 0) seen.append(buffer, static_cast<std::size_t>(n));
      }
    }
    return seen.find(text) != std::string::npos;
  };
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  Sandbox::writeFile(log, "first\n");
  EXPECT_TRUE(waitFor("first\n")) << seen;
  std::ofstream(log, std::ios::app) << "second\n";
  EXPECT_TRUE(waitFor("second\n")) << seen;
  fs::rename(log, log + ".rotated");
  Sandbox::writeFile(log, "third\n");
  EXPECT_TRUE(waitFor("third\n")) << seen;
  EXPECT_EQ(seen, "first\nsecond\nthird\n");
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  close(out[0]);
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
