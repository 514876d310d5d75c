#include "platform/Preferences.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/config/ConfigTestSupport.h"
#include "tests/support/FaultyFileSystem.h"

namespace kelo::platform {
namespace {

using test::Sandbox;
namespace fs = std::filesystem;

class PreferencesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Overrides o;
    o.fileSystem = files_;
    sandbox_.install(o);
  }
  std::string file(const std::string& domain) const { return test::domainFile(sandbox_, domain); }
  Value onDisk(const std::string& domain) const { return test::readDomainFile(sandbox_, domain); }
  std::shared_ptr<test::FaultyFileSystem> files_ = std::make_shared<test::FaultyFileSystem>();
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

TEST_F(PreferencesTest, SymbolicLinksAndForeignFilesAreRefused) {
  const std::string target = sandbox_.homePath() + "/elsewhere.json";
  Sandbox::writeFile(target, R"({"secret": 1})");
  fs::create_directories(PreferencesDomain::directory());
  fs::create_symlink(target, file("com.example.link"));
  auto link = PreferencesDomain::open("com.example.link");
  EXPECT_TRUE(link->contents().asDictionary().empty());
  EXPECT_FALSE(link->write("k", Value::integer(1)));
  EXPECT_EQ(Sandbox::readFile(target), R"({"secret": 1})");
  EXPECT_TRUE(fs::is_symlink(file("com.example.link")));
  EXPECT_GE(sandbox_.systemLines().size(), 2u);

  if (::geteuid() != 0) GTEST_SKIP() << "handing a file to another user needs root";
  Sandbox::writeFile(file("com.example.foreign"), R"({"k": 5})");
  ASSERT_EQ(::chown(file("com.example.foreign").c_str(), 4242, 4242), 0);
  auto foreign = PreferencesDomain::open("com.example.foreign");
  const size_t before = sandbox_.systemLines().size();
  EXPECT_TRUE(foreign->contents().asDictionary().empty());
  EXPECT_FALSE(foreign->write("k", Value::integer(6)));
  EXPECT_EQ(Sandbox::readFile(file("com.example.foreign")), R"({"k": 5})");
  EXPECT_GT(sandbox_.systemLines().size(), before);
}

TEST_F(PreferencesTest, FailedWriteKeepsTheOldFileAndTheStagedChange) {
  using Op = test::FaultyFileSystem::Op;
  auto openDescriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  auto domain = PreferencesDomain::open("com.example.fail");
  ASSERT_TRUE(domain->write("a", Value::integer(1)));
  const auto descriptors = openDescriptors();
  for (auto [op, error] : {std::pair{Op::kRename, EXDEV}, std::pair{Op::kFsync, EIO}}) {
    files_->fail(op, error);
    EXPECT_FALSE(domain->write("b", Value::integer(2)));
    files_->heal();
    EXPECT_EQ(onDisk("com.example.fail"), Value::dictionary({{"a", Value::integer(1)}}));
  }
  EXPECT_EQ(sandbox_.systemLines().size(), 2u);
  // No temporary file is left behind, no descriptor leaks, and the retry writes the change.
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_TRUE(domain->synchronize());
  EXPECT_EQ(onDisk("com.example.fail").find("b")->integerValue(), 2);
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(PreferencesDomain::directory())) {
    names.push_back(e.path().filename());
  }
  std::sort(names.begin(), names.end());
  ASSERT_EQ(names.size(), 2u);
  EXPECT_EQ(names[0], "com.example.fail.json");
  EXPECT_EQ(fs::path(names[1]).extension(), ".lock");
}

TEST_F(PreferencesTest, TwoProcessesWritingOneDomainLoseNoKey) {
  constexpr int kKeysEach = 500;
  auto key = [](int p, int i) { return "p" + std::to_string(p) + "-" + std::to_string(i); };
  pid_t children[2];
  for (int p = 0; p < 2; ++p) {
    children[p] = ::fork();
    ASSERT_GE(children[p], 0);
    if (children[p] == 0) {
      auto domain = PreferencesDomain::open("com.example.shared");
      bool ok = true;
      for (int i = 0; i < kKeysEach; ++i) {
        ok = domain->write(key(p, i), Value::integer(p * 10000 + i)) && ok;
      }
      ::_exit(ok ? 0 : 1);
    }
  }
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  const Value contents = PreferencesDomain::open("com.example.shared")->contents();
  ASSERT_EQ(contents.asDictionary().size(), 2u * kKeysEach);
  for (int p = 0; p < 2; ++p) {
    for (int i = 0; i < kKeysEach; ++i) {
      ASSERT_NE(contents.find(key(p, i)), nullptr);
      EXPECT_EQ(contents.find(key(p, i))->integerValue(), p * 10000 + i);
    }
  }
}

}  // namespace
}  // namespace kelo::platform
