#include "platform/Bundle.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "tests/config/ConfigTestSupport.h"

namespace kelo::platform {
namespace {

using test::Sandbox;

TEST(BundleTest, ReadsEntriesOrNothing) {
  Sandbox sandbox;
  sandbox.install();
  const std::string path = sandbox.rootPath() + "/B.bundle";
  EXPECT_EQ(Bundle::open(path), nullptr);
  Sandbox::writeFile(path, "a file, not a directory");
  EXPECT_EQ(Bundle::open(path), nullptr);

  Sandbox::writeFile(sandbox.rootPath() + "/Empty.bundle/other.txt", "");
  auto empty = Bundle::open(sandbox.rootPath() + "/Empty.bundle");
  ASSERT_NE(empty, nullptr);
  EXPECT_TRUE(empty->infoDictionary().isDictionary());
  EXPECT_TRUE(empty->infoDictionary().asDictionary().empty());
  EXPECT_EQ(empty->identifier(), std::nullopt);

  const std::string full = sandbox.rootPath() + "/Full.bundle";
  Sandbox::writeFile(full + "/Info.json", R"({"bundleIdentifier": "com.example.B", "list": [1, 2]})");
  auto bundle = Bundle::open(full);
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(bundle->identifier(), "com.example.B");
  EXPECT_EQ(bundle->objectForInfoDictionaryKey("list").asArray().size(), 2u);
  EXPECT_TRUE(bundle->objectForInfoDictionaryKey("absent").isNull());
  EXPECT_EQ(bundle->infoDictionary().asDictionary().size(), 2u);
  EXPECT_TRUE(sandbox.systemLines().empty());
}

TEST(BundleTest, MalformedInfoReadsEmptyWithOneLineNamingFileLineAndColumn) {
  Sandbox sandbox;
  sandbox.install();
  const std::string path = sandbox.rootPath() + "/B.bundle", file = path + "/Info.json";
  Sandbox::writeFile(file, "{\n  \"commonDefaults\": {\n    \"x\": 1,,\n  }\n}\n");
  auto bundle = Bundle::open(path);
  ASSERT_NE(bundle, nullptr);
  EXPECT_TRUE(bundle->infoDictionary().asDictionary().empty());
  auto lines = sandbox.systemLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, LOG_WARNING);
  EXPECT_EQ(lines[0].text.rfind(file + ":3:12: ", 0), 0u) << lines[0].text;

  Sandbox::writeFile(file, "[1, 2]");  // valid JSON, but no object
  EXPECT_TRUE(Bundle::open(path)->infoDictionary().asDictionary().empty());
  lines = sandbox.systemLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].text.rfind(file + ":1:1: ", 0), 0u);
}

}  // namespace
}  // namespace kelo::platform
