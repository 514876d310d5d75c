#include "kelo/KeloConfigurator.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config/ConfigKeys.h"
#include "kelo/config.h"
#include "tests/config/ConfigTestSupport.h"
#include "tests/support/LogCapture.h"

namespace kelo {
namespace {

using test::kMobileBundle;
using test::kSystemBundle;
using test::Sandbox;
using Lines = std::vector<std::string>;

Value dict(Value::Dictionary d) { return Value::dictionary(std::move(d)); }
Value integer(int64_t i) { return Value::integer(i); }

// Counts renames by target file name: how often a preferences domain was made durable.
class CountingFileSystem : public platform::FileSystem {
 public:
  int rename(const char* from, const char* to) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++renames_[std::filesystem::path(to).filename().string()];
    return FileSystem::rename(from, to);
  }
  int renamesInto(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    return renames_[name];
  }

 private:
  std::mutex mutex_;
  std::map<std::string, int> renames_;
};

class KeloConfiguratorTest : public ::testing::Test {
 protected:
  // Installs the sandbox with "hw.machine" answering `model`.
  void install(const std::string& model = "x86_64") {
    platform::Overrides o;
    o.deviceAnswers = dict({{"hw.machine", Value::string(model)}});
    o.fileSystem = files_;
    sandbox_.install(o);
  }
  void writeOverride(const std::string& json) {
    test::writeDomainFile(sandbox_, "com.vorn.Kelo", R"({"overideConfig": )" + json + "}");
  }
  Lines missingLines() const {
    Lines out;
    for (const std::string& t : test::DetailedLog(sandbox_).texts({"Kelo keyword missing"})) {
      EXPECT_EQ(t.rfind("Kelo keyword missing in dict ", 0), 0u) << t;
      out.push_back(t.substr(29));
    }
    return out;
  }
  static Lines dump(KeloConfigurator& configurator) {
    test::VslCapture capture;
    configurator.logAll(capture.client(), capture.msg(), VSL_LEVEL_INFO);
    configurator.logLight(capture.client(), capture.msg(), VSL_LEVEL_INFO);
    return capture.texts();
  }
  int64_t havenValue(const char* domain, const char* key) const {
    return test::readDomainFile(sandbox_, domain).find(key)->integerValue();
  }

  Sandbox sandbox_;
  std::shared_ptr<CountingFileSystem> files_ = std::make_shared<CountingFileSystem>();
};

TEST_F(KeloConfiguratorTest, WithoutBundleEveryKeyIsMissingAndTheOverrideIsNotRead) {
  install();
  writeOverride(R"({"commonDefaults": {"maxFetchApps": 7}})");
  test::startDetailedLogging();
  KeloConfigurator* c = KeloConfigurator::sharedInstance();
  EXPECT_EQ(c, KeloConfigurator::sharedInstance());
  EXPECT_EQ(c->getStateFor("maxFetchApps"), -1);
  EXPECT_EQ(c->getStateFor("maxFetchApps"), -1);
  EXPECT_EQ(getStateForC("globalPowerBudget"), -1);
  EXPECT_EQ(c->appWhiteListArray(), nullptr);
  EXPECT_TRUE(c->appBlackMap()->empty());
  EXPECT_EQ(missingLines(), (Lines{"maxFetchApps", "maxFetchApps", "globalPowerBudget"}));

  // A reload that still finds no bundle changes nothing, not even through the override.
  c->reloadBundleFromDisk();
  EXPECT_EQ(c->getStateFor("maxFetchApps"), -1);
  EXPECT_EQ(dump(*c), (Lines{"CONFIG-------->", "bundle (null)", "White list",
                             "Config Dictionary", "<--------CONFIG"}));
}

TEST_F(KeloConfiguratorTest, ShippedBundleSuppliesEveryKeyWithTheModelEntryOnTop) {
  install("x86_64");
  test::installShippedBundle(sandbox_);
  test::startDetailedLogging();
  KeloConfigurator* c = KeloConfigurator::sharedInstance();
  for (const config::KeyInfo& key : config::kKeys) {
    EXPECT_GE(c->getStateFor(std::string(key.name)), 0) << key.name;
  }
  EXPECT_TRUE(missingLines().empty());
  EXPECT_GT(c->getStateFor("globalPowerBudget"), 0);
  const Value info = test::Sandbox::readJson(test::shippedBundleDirectory() + "/Info.json");
  const Value* model = info.find("productSpecific")->find("x86_64");
  ASSERT_NE(model, nullptr);
  EXPECT_EQ(c->getStateFor("maxFetchApps"),
            model->find("commonDefaults")->find("maxFetchApps")->integerValue());
  EXPECT_NE(c->getStateFor("maxFetchApps"),
            info.find("commonDefaults")->find("maxFetchApps")->integerValue());
  EXPECT_EQ(c->appWhiteListArray()->size(), info.find("whitelist")->asArray().size());
  EXPECT_EQ(c->appBlackMap()->size(), info.find("blacklist")->asArray().size());
  EXPECT_TRUE(sandbox_.systemLines().empty());
}

TEST_F(KeloConfiguratorTest, MobileBundleReplacesTheSystemBundleWhole) {
  install();
  test::writeBundle(sandbox_, kSystemBundle, R"({
    "blacklist": ["sys.black"], "whitelist": ["sys.white"],
    "commonDefaults": {"maxFetchApps": 1, "coalesceTime": 9},
    "productSpecific": {"x86_64": {"VPSD": {"globalTopicLimit": 9}}}})");
  test::writeBundle(sandbox_, kMobileBundle, R"({
    "bundleIdentifier": "com.vorn.KeloMobileConfig",
    "blacklist": ["mobile.black"], "whitelist": ["mobile.white"],
    "commonDefaults": {"maxFetchApps": 2}})");
  KeloConfigurator c;
  EXPECT_EQ(c.getStateFor("maxFetchApps"), 2);
  EXPECT_EQ(c.getStateFor("coalesceTime"), -1);
  EXPECT_EQ(c.getStateFor("globalTopicLimit"), -1);
  EXPECT_EQ(*c.appBlackMap()->snapshot(),
            (Value::Dictionary{{"mobile.black", Value::boolean(true)}}));
  EXPECT_EQ(*c.appWhiteListArray(), Value::Array{Value::string("mobile.white")});
  EXPECT_EQ(dump(c)[1], "bundle com.vorn.KeloMobileConfig");
}

class PrecedenceTest : public KeloConfiguratorTest,
                       public ::testing::WithParamInterface<std::pair<std::string, int64_t>> {};

TEST_P(PrecedenceTest, BaseThenModelEntryThenOverride) {
  const auto [model, withoutOverride] = GetParam();
  install(model);
  test::writeBundle(sandbox_, kSystemBundle, R"({
    "commonDefaults": {"maxFetchApps": 3, "coalesceTime": 30},
    "productSpecific": {"x86_64": {"commonDefaults": {"maxFetchApps": 5}},
                        "Phone9,1": {"commonDefaults": {"coalesceTime": 99}}}})");
  for (int64_t expected : {withoutOverride, int64_t{7}}) {
    KeloConfigurator c;
    EXPECT_EQ(c.getStateFor("maxFetchApps"), expected);
    EXPECT_EQ(c.getStateFor("coalesceTime"), 30);  // only another model's entry sets it
    writeOverride(R"({"commonDefaults": {"maxFetchApps": 7}})");
  }
}

INSTANTIATE_TEST_SUITE_P(Models, PrecedenceTest,
                         ::testing::Values(std::pair{std::string("x86_64"), int64_t{5}},
                                           std::pair{std::string("other"), int64_t{3}}),
                         [](const auto& info) { return info.param.first; });

TEST_F(KeloConfiguratorTest, WithoutCommonDefaultsOnlyTheListsAndTheOverrideLoad) {
  install();
  test::writeBundle(sandbox_, kSystemBundle, R"({
    "blacklist": ["a.app", "b.app"], "fetchBudget": {"fetchAppDataBudget": 100},
    "productSpecific": {"x86_64": {"commonDefaults": {"maxFetchApps": 5}}}})");
  writeOverride(R"({"commonDefaults": {"disableFetch": true}})");
  KeloConfigurator c;
  EXPECT_EQ(c.appBlackMap()->size(), 2u);
  EXPECT_EQ(c.appBlackMap()->objectForKey("a.app"), Value::boolean(true));
  for (const config::KeyInfo& key : config::kKeys) {
    EXPECT_EQ(c.getStateFor(std::string(key.name)), key.name == "disableFetch" ? 1 : -1)
        << key.name;
  }
}

TEST_F(KeloConfiguratorTest, ReloadKeepsValuesAndBlacklistButReplacesTheWhitelist) {
  install();
  test::writeBundle(sandbox_, kSystemBundle, R"({"bundleIdentifier": "com.vorn.KeloConfiguration",
    "blacklist": ["old.black"], "whitelist": ["w.one", "w.two"],
    "commonDefaults": {"globalPowerBudget": 5000, "maxFetchApps": 4}})");
  KeloConfigurator c;
  const auto whiteBefore = c.appWhiteListArray();
  const auto blackMap = c.appBlackMap();
  EXPECT_EQ(dump(c), (Lines{"CONFIG-------->", "bundle com.vorn.KeloConfiguration", "White list",
                            "w.one", "w.two", "Config Dictionary",
                            "key: globalPowerBudget   value:5000", "key: maxFetchApps   value:4",
                            "<--------CONFIG"}));

  test::writeBundle(sandbox_, kSystemBundle, R"({"bundleIdentifier": "com.vorn.KeloConfiguration",
    "blacklist": ["new.black"], "commonDefaults": {"maxFetchApps": 6}})");
  c.reloadBundleFromDisk();
  EXPECT_EQ(c.getStateFor("globalPowerBudget"), 5000);
  EXPECT_EQ(c.getStateFor("maxFetchApps"), 6);
  // The map handed out before the reload is the map itself: it shows what the reload added.
  EXPECT_EQ(blackMap->count("old.black"), 1u);
  EXPECT_EQ(blackMap->count("new.black"), 1u);
  EXPECT_EQ(c.appWhiteListArray(), nullptr);
  EXPECT_EQ(whiteBefore->size(), 2u);  // a snapshot taken earlier is left as it was
  EXPECT_EQ(dump(c), (Lines{"CONFIG-------->", "bundle com.vorn.KeloConfiguration", "White list",
                            "Config Dictionary", "key: globalPowerBudget   value:5000",
                            "key: maxFetchApps   value:6", "<--------CONFIG"}));

  // A third source without the key leaves it; one with it replaces it.
  c.loadConfigurations(dict({{"commonDefaults", dict({{"globalPowerBudget", integer(7000)}})}}));
  EXPECT_EQ(c.getStateFor("globalPowerBudget"), 7000);
  c.loadConfigurations(Value());
  EXPECT_EQ(c.getStateFor("globalPowerBudget"), 7000);
}

// How a value becomes an integer is Value's business (see its tests); here, where keys count.
TEST_F(KeloConfiguratorTest, KeysCountOnlyInTheirGroup) {
  install();
  KeloConfigurator c;
  c.loadConfigurations(dict({
      {"commonDefaults", dict({{"timeThreshold", Value::real(-2.9)},
                               {"maxFetchApps", Value::string("42abc")},
                               {"NotAKey", integer(5)},
                               {"fetchAppDataBudget", integer(1)}})},
      // "whenToLaunch" beside "commonDefaults" and keys in the wrong group contribute nothing.
      {"whenToLaunch", dict({{"allowTrending", Value::boolean(true)}})},
      {"VPSD", dict({{"pushAppDataBudget", integer(2)}, {"globalTopicLimit", integer(3)}})},
      {"backgroundDownload", integer(4)},
  }));
  const std::map<std::string, int64_t> expected = {
      {"timeThreshold", -2},      {"maxFetchApps", 42},       {"NotAKey", -1},
      {"maxfetchapps", -1},       {"launchTimeLimit", -1},    {"allowTrending", -1},
      {"fetchAppDataBudget", -1}, {"pushAppDataBudget", -1}, {"globalTopicLimit", 3}};
  for (const auto& [key, value] : expected) EXPECT_EQ(c.getStateFor(key), value) << key;

  c.loadConfigurations(dict({{"commonDefaults",
                              dict({{"whenToLaunch", dict({{"allowTrending", integer(1)},
                                                           {"allowPowerOnWake", integer(0)}})}})}}));
  EXPECT_EQ(c.getStateFor("allowTrending"), 1);
  EXPECT_EQ(c.getStateFor("allowPowerOnWake"), 0);
}

TEST_F(KeloConfiguratorTest, HavenValuesGoToTheirDomainsOneSynchronisationPerKey) {
  install();
  KeloConfigurator c;
  c.updateHavenConfiguration(Value());
  c.loadConfigurations(dict({{"commonDefaults", dict({{"maxFetchApps", integer(1)}})}}));
  c.updateHavenConfiguration(dict({{"HVBackgroundFetchWatchdogExtension", integer(30)}}));
  EXPECT_EQ(files_->renamesInto("com.vorn.haven.json"), 1);
  EXPECT_EQ(test::readDomainFile(sandbox_, "com.vorn.haven"),
            dict({{"HVBackgroundFetchWatchdogExtension", integer(30)}}));
  EXPECT_FALSE(Sandbox::exists(test::domainFile(sandbox_, "com.vorn.tessd")));

  c.loadConfigurations(dict(
      {{"haven", dict({{"TSBackgroundContentFetchingProcessAssertionDuration", Value::real(12.7)},
                       {"TSBackgroundDownloadProcessAssertionDuration", integer(180)}})}}));
  EXPECT_EQ(files_->renamesInto("com.vorn.tessd.json"), 2);
  EXPECT_EQ(c.getStateFor("TSBackgroundContentFetchingProcessAssertionDuration"), 12);
  const Value tessd = test::readDomainFile(sandbox_, "com.vorn.tessd");
  const Value* written = tessd.find("TSBackgroundContentFetchingProcessAssertionDuration");
  ASSERT_NE(written, nullptr);
  EXPECT_EQ(written->type(), Value::Type::kInteger);
  EXPECT_EQ(written->integerValue(), 12);
  EXPECT_EQ(havenValue("com.vorn.tessd", "TSBackgroundDownloadProcessAssertionDuration"), 180);
  EXPECT_EQ(havenValue("com.vorn.haven", "HVBackgroundFetchWatchdogExtension"), 30);
}

TEST_F(KeloConfiguratorTest, HavenValueOfTheOverrideIsWrittenLast) {
  install();
  test::writeBundle(sandbox_, kSystemBundle, R"({"commonDefaults": {},
    "haven": {"HVBackgroundFetchWatchdogExtension": 10}})");
  writeOverride(R"({"haven": {"HVBackgroundFetchWatchdogExtension": 20}})");
  KeloConfigurator c;
  EXPECT_EQ(c.getStateFor("HVBackgroundFetchWatchdogExtension"), 20);
  EXPECT_EQ(files_->renamesInto("com.vorn.haven.json"), 2);
  EXPECT_EQ(files_->renamesInto("com.vorn.tessd.json"), 0);
  EXPECT_EQ(havenValue("com.vorn.haven", "HVBackgroundFetchWatchdogExtension"), 20);
  // The domains keep what was written when later sources lack the key.
  writeOverride("{}");
  test::writeBundle(sandbox_, kSystemBundle, R"({"commonDefaults": {}})");
  c.reloadBundleFromDisk();
  EXPECT_EQ(c.getStateFor("HVBackgroundFetchWatchdogExtension"), 20);
  EXPECT_EQ(files_->renamesInto("com.vorn.haven.json"), 2);
}

TEST_F(KeloConfiguratorTest, CKeysThatAreNotUtf8ReadZeroWithoutALine) {
  install();
  test::writeBundle(sandbox_, kSystemBundle, R"({"commonDefaults": {"maxFetchApps": 3},
    "haven": {"HVBackgroundFetchWatchdogExtension": 10}})");
  test::startDetailedLogging();
  // A key that fails the check does not even create the configurator (which would write).
  EXPECT_EQ(getStateForC("\xFFmaxFetchApps"), 0);
  EXPECT_FALSE(Sandbox::exists(test::domainFile(sandbox_, "com.vorn.haven")));
  EXPECT_EQ(getStateForC("maxFetchApps"), 3);
  EXPECT_TRUE(Sandbox::exists(test::domainFile(sandbox_, "com.vorn.haven")));
  EXPECT_EQ(getStateForC("max\xC3\xA9"), -1);
  for (const char* bad : {"max\xE9", "\xED\xA0\x80maxFetchApps", "maxFetchApps\xC0\x80",
                          static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(getStateForC(bad), 0);
  }
  EXPECT_EQ(missingLines(), Lines{"max\xC3\xA9"});
}

TEST_F(KeloConfiguratorTest, MalformedSourcesGiveTheNeutralOutcomeAndThePortsLine) {
  install();
  test::writeBundle(sandbox_, kSystemBundle, R"({"commonDefaults": {"maxFetchApps": 3,}})");
  test::writeDomainFile(sandbox_, "com.vorn.Kelo", R"({"overideConfig": )");
  KeloConfigurator c;
  EXPECT_EQ(c.getStateFor("maxFetchApps"), -1);
  const auto lines = sandbox_.systemLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].text.find("/Info.json:1:"), std::string::npos) << lines[0].text;
  EXPECT_NE(lines[1].text.find("com.vorn.Kelo.json:1:"), std::string::npos) << lines[1].text;
  EXPECT_TRUE(Sandbox::exists(test::domainFile(sandbox_, "com.vorn.Kelo") + ".corrupt"));
}

TEST_F(KeloConfiguratorTest, LookupsDuringReloadsSeeOnlyWholeValues) {
  install();
  const std::string even = R"({"commonDefaults": {"globalPowerBudget": 5000},
                               "whitelist": ["a"], "blacklist": ["x"]})";
  const std::string odd = R"({"commonDefaults": {"globalPowerBudget": 7000},
                              "whitelist": ["a", "b"], "blacklist": ["y"]})";
  test::writeBundle(sandbox_, kSystemBundle, even);
  KeloConfigurator* c = KeloConfigurator::sharedInstance();
  const auto blackMap = c->appBlackMap();
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&, t] {
      while (!stop.load()) {
        const int64_t v =
            t % 2 ? getStateForC("globalPowerBudget") : c->getStateFor("globalPowerBudget");
        const auto white = c->appWhiteListArray();
        if ((v != 5000 && v != 7000) || white == nullptr || white->empty()) ++bad;
        if (blackMap->count("x") != 1 || blackMap->size() > 2) ++bad;
      }
    });
  }
  for (int i = 0; i < 40; ++i) {
    test::writeBundle(sandbox_, kSystemBundle, i % 2 ? even : odd);
    c->reloadBundleFromDisk();
  }
  stop = true;
  for (std::thread& r : readers) r.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(c->getStateFor("globalPowerBudget"), 5000);
  EXPECT_EQ(blackMap->size(), 2u);
}

}  // namespace
}  // namespace kelo
