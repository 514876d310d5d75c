#include "platform/Facts.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <syslog.h>

#include "tests/support/Sandbox.h"

namespace kelo::platform {
namespace {

using test::Sandbox;

TEST(FactsTest, DefaultsComeFromTheSystem) {
  EXPECT_GT(now(), 1.6e9);
  EXPECT_EQ(devicePath("/etc/x"), "/etc/x");
  EXPECT_FALSE(processName().empty());
  EXPECT_FALSE(homeDirectory().empty());
}

TEST(FactsTest, OverridesReplaceEachFact) {
  Sandbox sandbox(1000.5);
  sandbox.install();
  EXPECT_DOUBLE_EQ(now(), 1000.5);
  sandbox.advance(86401);
  EXPECT_DOUBLE_EQ(now(), 87401.5);
  EXPECT_EQ(processName(), "kelotest");
  EXPECT_EQ(homeDirectory(), sandbox.homePath());
  EXPECT_EQ(devicePath("/System/Library/x"), sandbox.rootPath() + "/System/Library/x");
  systemLog(LOG_ERR, "hello");
  EXPECT_EQ(sandbox.consoleLines(), std::vector<std::string>{"hello"});
}

TEST(FactsTest, DeviceAnswersComeFromDeviceJsonUnderTheRoot) {
  Sandbox sandbox;
  sandbox.install();
  const std::string file = sandbox.rootPath() + "/etc/kelo/device.json";
  EXPECT_FALSE(deviceAnswer("InternalBuild").has_value());
  utsname u;
  ASSERT_EQ(::uname(&u), 0);
  EXPECT_EQ(hardwareModel(), u.machine);

  Sandbox::writeFile(file, "{\"InternalBuild\": ");
  EXPECT_FALSE(deviceAnswer("InternalBuild").has_value());
  ASSERT_EQ(sandbox.systemLines().size(), 1u);
  EXPECT_NE(sandbox.systemLines()[0].text.find("device.json:1:"), std::string::npos);

  Sandbox::writeFile(file, R"({"InternalBuild": true, "hw.machine": "Model9,1"})");
  ASSERT_TRUE(deviceAnswer("InternalBuild").has_value());
  EXPECT_TRUE(deviceAnswer("InternalBuild")->asBoolean());
  EXPECT_EQ(hardwareModel(), "Model9,1");
}

TEST(FactsTest, InstalledAnswersWinOverTheFile) {
  Sandbox sandbox;
  Overrides o;
  o.deviceAnswers = Value::dictionary({{"InternalBuild", Value::boolean(false)}});
  sandbox.install(o);
  Sandbox::writeFile(sandbox.rootPath() + "/etc/kelo/device.json", R"({"InternalBuild": true})");
  ASSERT_TRUE(deviceAnswer("InternalBuild").has_value());
  EXPECT_FALSE(deviceAnswer("InternalBuild")->asBoolean());
}

TEST(FactsDeathTest, OverridesAfterTheFirstServiceFailLoudly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        installOverrides(Overrides{});
        sealOverrides();
        installOverrides(Overrides{});
      },
      "before any service exists");
}

}  // namespace
}  // namespace kelo::platform
