#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelo/vsl.h"
#include "tests/support/Sandbox.h"

namespace kelo {
namespace {

using test::Sandbox;

// Counts the write calls per descriptor and can make them fail in the ways the kernel does.
class FlakyFileSystem : public platform::FileSystem {
 public:
  ssize_t write(int fd, const void* data, size_t size) override {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(fd);
    if (fd == failingFd_) {
      errno = EIO;
      return -1;
    }
    if (interruptions_ > 0) {
      --interruptions_;
      errno = EINTR;
      return -1;
    }
    return FileSystem::write(fd, data, std::min(size, maxChunk_));
  }

  void interruptNext(int times) { interruptions_ = times; }
  void limitChunk(size_t bytes) { maxChunk_ = bytes; }
  void failAlways(int fd) { failingFd_ = fd; }
  int callsFor(int fd) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(std::count(calls_.begin(), calls_.end(), fd));
  }

 private:
  mutable std::mutex mutex_;
  std::vector<int> calls_;
  int interruptions_ = 0;
  size_t maxChunk_ = SIZE_MAX;
  int failingFd_ = -2;
};

class SystemLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    files_ = std::make_shared<FlakyFileSystem>();
    platform::Overrides o;
    o.fileSystem = files_;
    sandbox_.install(o);
  }

  int openFile(const std::string& name) {
    const std::string path = sandbox_.homePath() + "/" + name;
    paths_.push_back(path);
    return ::open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  }

  // The text of each line after "<Level>: ", with the level name.
  static std::vector<std::string> bodies(const std::string& path) {
    std::vector<std::string> out;
    for (const std::string& line : Sandbox::readLines(path)) {
      const auto level = line.find(" <");
      out.push_back(level == std::string::npos ? line : line.substr(level + 1));
    }
    return out;
  }

  Sandbox sandbox_{1763722560.25};
  std::shared_ptr<FlakyFileSystem> files_;
  std::vector<std::string> paths_;
};

TEST_F(SystemLogTest, LineCarriesUtcTimeIdentityPidAndLevel) {
  const int fd = openFile("a.log");
  vsl_client_t client = vsl_open("sched", "facility", VSL_OPT_NO_DELAY);
  ASSERT_NE(client, nullptr);
  ASSERT_EQ(vsl_add_log_file(client, fd), 0);
  vsl_log(client, vsl_new(VSL_TYPE_MSG), 6, "count %d of %s", 3, "apps");
  const std::string expected = "2025-11-21 10:56:00.250000 +0000 sched[" +
                               std::to_string(::getpid()) + "] <Info>: count 3 of apps\n";
  EXPECT_EQ(Sandbox::readFile(paths_[0]), expected);
  vsl_close(client);
  ::close(fd);
}

TEST_F(SystemLogTest, TimeStampFollowsTheClockAcrossSecondsAndDays) {
  const int fd = openFile("a.log");
  vsl_client_t client = vsl_open("x", "f", 0);
  vsl_add_log_file(client, fd);
  const struct {
    double time;
    const char* prefix;
  } cases[] = {
      {86399.5, "1970-01-01 23:59:59.500000 +0000"},
      {86399.75, "1970-01-01 23:59:59.750000 +0000"},
      {86400.0, "1970-01-02 00:00:00.000000 +0000"},
      {86399.0, "1970-01-01 23:59:59.000000 +0000"},
      {951782400.125, "2000-02-29 00:00:00.125000 +0000"},
      {-0.5, "1969-12-31 23:59:59.500000 +0000"},
  };
  for (const auto& c : cases) {
    sandbox_.setNow(c.time);
    vsl_log(client, nullptr, 6, "%s", "t");
  }
  const std::vector<std::string> lines = Sandbox::readLines(paths_[0]);
  ASSERT_EQ(lines.size(), std::size(cases));
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].substr(0, std::string(cases[i].prefix).size()), cases[i].prefix);
  }
  vsl_close(client);
  ::close(fd);
}

TEST_F(SystemLogTest, MaskSelectsLevelsPerDescriptor) {
  const int filtered = openFile("filtered.log");
  const int everything = openFile("all.log");
  vsl_client_t client = vsl_open("x", "f", 0);
  vsl_add_log_file(client, filtered);
  vsl_add_log_file(client, everything);
  ASSERT_EQ(vsl_set_output_file_filter(client, filtered, 192), 0);
  EXPECT_EQ(vsl_set_output_file_filter(client, 999, 192), -1);
  for (int level = -1; level <= 9; ++level) vsl_log(client, nullptr, level, "level %d", level);

  EXPECT_EQ(bodies(paths_[0]),
            (std::vector<std::string>{"<Info>: level 6", "<Debug>: level 7"}));
  EXPECT_EQ(bodies(paths_[1]),
            (std::vector<std::string>{"<Emergency>: level 0", "<Alert>: level 1",
                                      "<Critical>: level 2", "<Error>: level 3",
                                      "<Warning>: level 4", "<Notice>: level 5", "<Info>: level 6",
                                      "<Debug>: level 7"}));
  vsl_close(client);
  ::close(filtered);
  ::close(everything);
}

TEST_F(SystemLogTest, ControlCharactersAreEscapedSoOneCallIsOneLine) {
  const int fd = openFile("a.log");
  vsl_client_t client = vsl_open("x", "f", 0);
  vsl_add_log_file(client, fd);
  const struct {
    const char* text;
    const char* written;
  } cases[] = {
      {"two\nlines", "two\\nlines"},
      {"tab\there", "tab\\there"},
      {"cr\rlf\n", "cr\\rlf\\n"},
      {"esc\x1b[0m", "esc\\x1b[0m"},
      {"del\x7f bell\x07", "del\\x7f bell\\x07"},
      {"caf\xc3\xa9 back\\slash", "caf\xc3\xa9 back\\slash"},
      {"", ""},
      // Past the first word, and high bytes whose low bits look like control characters.
      {"quite a long prefix\x1f then \xe2\x80\x9f\xff\xa0\x9f\x8a ok\n",
       "quite a long prefix\\x1f then \xe2\x80\x9f\xff\xa0\x9f\x8a ok\\n"},
  };
  for (const auto& c : cases) vsl_log(client, nullptr, 6, "%s", c.text);
  // Through the formatting path too, not only the plain "%s" one.
  vsl_log(client, nullptr, 6, "n=%d\n%s", 1, "x\ty");
  const std::vector<std::string> lines = bodies(paths_[0]);
  ASSERT_EQ(lines.size(), std::size(cases) + 1);
  for (size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(lines[i], std::string("<Info>: ") + cases[i].written);
  }
  EXPECT_EQ(lines.back(), "<Info>: n=1\\nx\\ty");
  vsl_close(client);
  ::close(fd);
}

TEST_F(SystemLogTest, LongLinesAreWrittenWhole) {
  const int fd = openFile("a.log");
  vsl_client_t client = vsl_open("x", "f", 0);
  vsl_add_log_file(client, fd);
  const std::string longText(5000, 'q');
  vsl_log(client, nullptr, 6, "%s", longText.c_str());
  vsl_log(client, nullptr, 6, "<%s>", longText.c_str());
  std::string controls(3000, '\n');
  vsl_log(client, nullptr, 6, "%s", controls.c_str());
  const std::vector<std::string> lines = bodies(paths_[0]);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "<Info>: " + longText);
  EXPECT_EQ(lines[1], "<Info>: <" + longText + ">");
  std::string escaped;
  for (int i = 0; i < 3000; ++i) escaped += "\\n";
  EXPECT_EQ(lines[2], "<Info>: " + escaped);
  EXPECT_EQ(files_->callsFor(fd), 3);
  vsl_close(client);
  ::close(fd);
}

TEST_F(SystemLogTest, OneWritePerLineCompletedOrDroppedWithoutStoppingTheCaller) {
  const int broken = openFile("broken.log");
  const int good = openFile("good.log");
  vsl_client_t client = vsl_open("x", "f", 0);
  vsl_add_log_file(client, broken);
  vsl_add_log_file(client, good);
  vsl_add_log_file(client, good);  // attached once only
  vsl_add_log_file(client, -1);    // never opened: its writes fail
  files_->failAlways(broken);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(vsl_log(client, nullptr, 6, "line %d", i), 0);
  EXPECT_EQ(files_->callsFor(broken), 3);
  EXPECT_EQ(files_->callsFor(good), 3);
  EXPECT_EQ(files_->callsFor(-1), 3);

  files_->interruptNext(3);
  files_->limitChunk(7);
  vsl_log(client, nullptr, 6, "%s", "longer than seven bytes");
  EXPECT_EQ(Sandbox::readFile(paths_[0]), "");
  EXPECT_EQ(bodies(paths_[1]), (std::vector<std::string>{"<Info>: line 0", "<Info>: line 1",
                                                         "<Info>: line 2",
                                                         "<Info>: longer than seven bytes"}));
  EXPECT_EQ(vsl_log(nullptr, nullptr, 6, "%s", "x"), -1);
  vsl_close(client);
  ::close(broken);
  ::close(good);
}

}  // namespace
}  // namespace kelo
