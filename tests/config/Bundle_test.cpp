#include "platform/Bundle.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "tests/config/ConfigTestSupport.h"

namespace kelo::platform {
namespace {

using test::Sandbox;

class BundleTest : public ::testing::Test {
 protected:
  void SetUp() override { sandbox_.install(); }
  std::string bundlePath() const { return sandbox_.rootPath() + "/B.bundle"; }
  Sandbox sandbox_;
};

TEST_F(BundleTest, ReadsEntriesAndIdentifier) {
  Sandbox::writeFile(bundlePath() + "/Info.json",
                     R"({"bundleIdentifier": "com.example.B", "list": [1, 2]})");
  auto bundle = Bundle::open(bundlePath());
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(bundle->identifier(), "com.example.B");
  EXPECT_EQ(bundle->objectForInfoDictionaryKey("list").asArray().size(), 2u);
  EXPECT_TRUE(bundle->objectForInfoDictionaryKey("absent").isNull());
  EXPECT_EQ(bundle->infoDictionary().asDictionary().size(), 2u);
  EXPECT_TRUE(sandbox_.systemLines().empty());
}

TEST_F(BundleTest, MissingDirectoryIsNoBundleAndMissingInfoIsEmpty) {
  EXPECT_EQ(Bundle::open(bundlePath()), nullptr);
  Sandbox::writeFile(bundlePath(), "a file, not a directory");
  EXPECT_EQ(Bundle::open(bundlePath()), nullptr);

  Sandbox::writeFile(sandbox_.rootPath() + "/Empty.bundle/other.txt", "");
  auto empty = Bundle::open(sandbox_.rootPath() + "/Empty.bundle");
  ASSERT_NE(empty, nullptr);
  EXPECT_TRUE(empty->infoDictionary().isDictionary());
  EXPECT_TRUE(empty->infoDictionary().asDictionary().empty());
  EXPECT_EQ(empty->identifier(), std::nullopt);
  EXPECT_TRUE(sandbox_.systemLines().empty());
}

TEST_F(BundleTest, MalformedInfoReadsEmptyWithOneLineNamingFileLineAndColumn) {
  const std::string file = bundlePath() + "/Info.json";
  Sandbox::writeFile(file, "{\n  \"commonDefaults\": {\n    \"x\": 1,,\n  }\n}\n");
  auto bundle = Bundle::open(bundlePath());
  ASSERT_NE(bundle, nullptr);
  EXPECT_TRUE(bundle->infoDictionary().asDictionary().empty());
  const auto lines = sandbox_.systemLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, LOG_WARNING);
  EXPECT_EQ(lines[0].text.rfind(file + ":3:12: ", 0), 0u) << lines[0].text;

  // A document that is valid JSON but not an object is no dictionary either.
  Sandbox::writeFile(file, "[1, 2]");
  EXPECT_TRUE(Bundle::open(bundlePath())->infoDictionary().asDictionary().empty());
  ASSERT_EQ(sandbox_.systemLines().size(), 2u);
  EXPECT_EQ(sandbox_.systemLines()[1].text.rfind(file + ":1:1: ", 0), 0u);
}

}  // namespace
}  // namespace kelo::platform
