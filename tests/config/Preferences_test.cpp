#include "platform/Preferences.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/config/ConfigTestSupport.h"
#include "tests/support/ChildProcess.h"

namespace kelo::platform {
namespace {

using test::Sandbox;

class PreferencesTest : public ::testing::Test {
 protected:
  void SetUp() override { sandbox_.install(); }
  std::string file(const std::string& domain) const { return test::domainFile(sandbox_, domain); }
  Value onDisk(const std::string& domain) const { return test::readDomainFile(sandbox_, domain); }
  Sandbox sandbox_;
};

TEST_F(PreferencesTest, NamesNeverLeaveTheFolder) {
  for (const std::string& bad : std::vector<std::string>{
           "", ".", "..", "a/b", "../x", "/abs", std::string("a\0b", 3), std::string(201, 'a')}) {
    EXPECT_FALSE(PreferencesDomain::isValidName(bad)) << bad;
    EXPECT_EQ(PreferencesDomain::open(bad), nullptr) << bad;
  }
  EXPECT_TRUE(PreferencesDomain::isValidName("..hidden"));
  EXPECT_EQ(PreferencesDomain::open("com.vorn.Kelo")->path(), file("com.vorn.Kelo"));
}

TEST_F(PreferencesTest, StagedChangesReachTheFileOnlyWhenSynchronised) {
  auto domain = PreferencesDomain::open("com.example.a");
  domain->setInteger("n", 42);
  domain->setValue("s", Value::string("text"));
  EXPECT_FALSE(Sandbox::exists(file("com.example.a")));
  EXPECT_EQ(domain->contents().find("n")->integerValue(), 42);  // staged changes show

  ASSERT_TRUE(domain->synchronize());
  EXPECT_EQ(onDisk("com.example.a").find("n")->integerValue(), 42);
  EXPECT_EQ(onDisk("com.example.a").find("s")->asString(), "text");

  // Another handle (as another process would) sees the same and removes a key durably.
  auto other = PreferencesDomain::open("com.example.a");
  EXPECT_EQ(other->contents(), onDisk("com.example.a"));
  ASSERT_TRUE(other->remove("s"));
  EXPECT_EQ(onDisk("com.example.a").find("s"), nullptr);
  EXPECT_EQ(domain->contents().find("s"), nullptr);

  struct stat st;
  ASSERT_EQ(::stat(file("com.example.a").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  ASSERT_EQ(::stat(PreferencesDomain::directory().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0755u);
  EXPECT_EQ(PreferencesDomain::listDomains(), std::vector<std::string>{"com.example.a"});
  EXPECT_TRUE(sandbox_.systemLines().empty());
}

// Writing what the file already holds leaves the file alone; a change made meanwhile through
// another handle (another process) is never mistaken for it.
TEST_F(PreferencesTest, UnchangedValuesAreNotRewrittenButOthersChangesAreSeen) {
  auto domain = PreferencesDomain::open("com.example.b");
  ASSERT_TRUE(domain->write("n", Value::integer(1)));
  const auto inode = [&] {
    struct stat st;
    return ::stat(file("com.example.b").c_str(), &st) == 0 ? st.st_ino : 0;
  };
  const auto first = inode();
  ASSERT_TRUE(domain->write("n", Value::integer(1)));
  EXPECT_EQ(inode(), first) << "nothing changed: no new file";

  ASSERT_TRUE(PreferencesDomain::open("com.example.b")->write("n", Value::integer(2)));
  ASSERT_TRUE(domain->write("n", Value::integer(1)));
  EXPECT_EQ(onDisk("com.example.b").find("n")->integerValue(), 1);

  std::filesystem::remove(file("com.example.b"));
  ASSERT_TRUE(domain->write("n", Value::integer(1)));
  EXPECT_EQ(onDisk("com.example.b").find("n")->integerValue(), 1) << "a removed file is rewritten";
}

TEST_F(PreferencesTest, MalformedFileIsMovedAsideNeverOverwritten) {
  const std::string path = file("com.example.bad");
  const std::string garbage = "{\"kept\": 1,\n  oops}";
  Sandbox::writeFile(path, garbage);
  auto domain = PreferencesDomain::open("com.example.bad");
  EXPECT_TRUE(domain->contents().asDictionary().empty());
  EXPECT_EQ(Sandbox::readFile(path + ".corrupt"), garbage);
  EXPECT_FALSE(Sandbox::exists(path));
  auto lines = sandbox_.systemLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text.rfind(path + ":2:3: ", 0), 0u) << lines[0].text;
  EXPECT_TRUE(domain->contents().asDictionary().empty());
  EXPECT_EQ(sandbox_.systemLines().size(), 1u);  // moved once, reported once

  // A write meeting a second malformed file keeps the first one aside as well.
  Sandbox::writeFile(path, "not json");
  ASSERT_TRUE(domain->write("fresh", Value::integer(1)));
  EXPECT_EQ(Sandbox::readFile(path + ".corrupt"), garbage);
  EXPECT_EQ(Sandbox::readFile(path + ".corrupt.1"), "not json");
  EXPECT_EQ(onDisk("com.example.bad").find("fresh")->integerValue(), 1);
  EXPECT_EQ(sandbox_.systemLines().size(), 2u);
}

// A domain file that is a link, or another user's, is neither read nor written: the write fails,
// the file it names stays as it was, and one line names the file and says why.
TEST_F(PreferencesTest, SymbolicLinksAndForeignFilesAreRefused) {
  const std::string victim = sandbox_.homePath() + "/victim";
  const std::string text = R"({"k": 1})";
  Sandbox::writeFile(victim, text);
  std::filesystem::create_directories(PreferencesDomain::directory());
  std::filesystem::create_symlink(victim, file("com.example.link"));
  Sandbox::writeFile(file("com.example.foreign"), text);
  const bool root = ::geteuid() == 0;
  if (root) {
    ASSERT_EQ(::chown(file("com.example.foreign").c_str(), 4242, 4242), 0);
  }
  for (const char* name : {"com.example.link", "com.example.foreign"}) {
    if (!root && std::string(name) == "com.example.foreign") continue;
    SCOPED_TRACE(name);
    auto domain = PreferencesDomain::open(name);
    EXPECT_TRUE(domain->contents().asDictionary().empty());
    EXPECT_FALSE(domain->write("k", Value::integer(2)));
    EXPECT_EQ(Sandbox::readFile(file(name)), text);
    bool reported = false;
    for (const auto& line : sandbox_.systemLines()) {
      reported = reported || line.text.rfind(file(name) + ": preferences not written: ", 0) == 0;
    }
    EXPECT_TRUE(reported);
  }
  EXPECT_TRUE(std::filesystem::is_symlink(file("com.example.link")));
}

TEST_F(PreferencesTest, TwoProcessesWritingOneDomainLoseNoKey) {
  constexpr int kKeysEach = 500;
  auto key = [](int p, int i) { return "p" + std::to_string(p) + "-" + std::to_string(i); };
  std::vector<test::ChildProcess> writers;
  for (int p = 0; p < 2; ++p) {
    writers.emplace_back([&key, p] {
      auto domain = PreferencesDomain::open("com.example.shared");
      bool ok = true;
      for (int i = 0; i < kKeysEach; ++i) ok = domain->write(key(p, i), Value::integer(i)) && ok;
      return ok ? 0 : 1;
    });
  }
  for (test::ChildProcess& w : writers) w.go();
  for (test::ChildProcess& w : writers) EXPECT_EQ(w.wait(), 0);
  Value::Dictionary expected;
  for (int p = 0; p < 2; ++p) {
    for (int i = 0; i < kKeysEach; ++i) expected.emplace(key(p, i), Value::integer(i));
  }
  EXPECT_EQ(PreferencesDomain::open("com.example.shared")->contents(),
            Value::dictionary(std::move(expected)));
}

}  // namespace
}  // namespace kelo::platform
