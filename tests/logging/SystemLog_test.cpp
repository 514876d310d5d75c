#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "kelo/vsl.h"
#include "tests/logging/LogFiles.h"

namespace kelo {
namespace {

using test::lineBodies;
using test::Sandbox;

class SystemLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::Overrides o;
    o.fileSystem = files_;
    sandbox_.install(o);
    client_ = vsl_open("kelotest", "facility", VSL_OPT_NO_DELAY);
    ASSERT_NE(client_, nullptr);
  }
  void TearDown() override {
    vsl_close(client_);
    for (int fd : fds_) ::close(fd);
  }

  int attach(const std::string& name) {
    paths_.push_back(sandbox_.homePath() + "/" + name);
    fds_.push_back(::open(paths_.back().c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    EXPECT_EQ(vsl_add_log_file(client_, fds_.back()), 0);
    return fds_.back();
  }

  Sandbox sandbox_{1763722560.25};
  std::shared_ptr<test::RecordingFileSystem> files_ = std::make_shared<test::RecordingFileSystem>();
  vsl_client_t client_ = nullptr;
  std::vector<int> fds_;
  std::vector<std::string> paths_;
};

TEST_F(SystemLogTest, LineCarriesUtcTimeIdentityPidAndLevel) {
  attach("a.log");
  vsl_log(client_, vsl_new(VSL_TYPE_MSG), 6, "count %d of %s", 3, "apps");
  EXPECT_EQ(Sandbox::readFile(paths_[0]), "2025-11-21 10:56:00.250000 +0000 kelotest[" +
                                              std::to_string(::getpid()) +
                                              "] <Info>: count 3 of apps\n");
  const struct {
    double time;
    const char* prefix;
  } cases[] = {
      {86399.5, "1970-01-01 23:59:59.500000 +0000"},
      {86399.75, "1970-01-01 23:59:59.750000 +0000"},  // same second as before
      {86400.0, "1970-01-02 00:00:00.000000 +0000"},
      {86399.0, "1970-01-01 23:59:59.000000 +0000"},  // a clock set back
      {951782400.125, "2000-02-29 00:00:00.125000 +0000"},
      {-0.5, "1969-12-31 23:59:59.500000 +0000"},
      {-1e-17, "1969-12-31 23:59:59.999999 +0000"},  // a hair below a whole second
  };
  for (const auto& c : cases) {
    sandbox_.setNow(c.time);
    vsl_log(client_, nullptr, 6, "%s", "t");
  }
  const std::vector<std::string> lines = Sandbox::readLines(paths_[0]);
  ASSERT_EQ(lines.size(), std::size(cases) + 1);
  for (size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(lines[i + 1].rfind(cases[i].prefix, 0), 0u) << lines[i + 1];
  }
  // Two-character formats other than "%s" are formatted, not taken as a string.
  vsl_log(client_, nullptr, 6, "%d", 42);
  EXPECT_EQ(lineBodies(paths_[0]).back(), "<Info>: 42");
}

TEST_F(SystemLogTest, MaskSelectsLevelsPerDescriptor) {
  const int filtered = attach("filtered.log");
  attach("all.log");
  ASSERT_EQ(vsl_set_output_file_filter(client_, filtered, 192), 0);
  EXPECT_EQ(vsl_set_output_file_filter(client_, 999, 192), -1);
  for (int level = -1; level <= 9; ++level) vsl_log(client_, nullptr, level, "level %d", level);

  EXPECT_EQ(lineBodies(paths_[0]),
            (std::vector<std::string>{"<Info>: level 6", "<Debug>: level 7"}));
  EXPECT_EQ(lineBodies(paths_[1]),
            (std::vector<std::string>{"<Emergency>: level 0", "<Alert>: level 1",
                                      "<Critical>: level 2", "<Error>: level 3",
                                      "<Warning>: level 4", "<Notice>: level 5", "<Info>: level 6",
                                      "<Debug>: level 7"}));
}

TEST_F(SystemLogTest, ControlCharactersAreEscapedSoOneCallIsOneLine) {
  const int fd = attach("a.log");
  const std::string longText(5000, 'q');
  std::string escapedNewlines;
  for (int i = 0; i < 3000; ++i) escapedNewlines += "\\n";
  const struct {
    std::string text;
    std::string written;
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
      // Longer than any buffer on the stack.
      {longText, longText},
      {std::string(3000, '\n'), escapedNewlines},
  };
  for (const auto& c : cases) vsl_log(client_, nullptr, 6, "%s", c.text.c_str());
  // Through the formatting path too, not only the plain "%s" one.
  vsl_log(client_, nullptr, 6, "n=%d\n%s", 1, "x\ty");
  vsl_log(client_, nullptr, 6, "<%s>", longText.c_str());

  const std::vector<std::string> lines = lineBodies(paths_[0]);
  ASSERT_EQ(lines.size(), std::size(cases) + 2);
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(lines[i], "<Info>: " + cases[i].written);
  EXPECT_EQ(lines[lines.size() - 2], "<Info>: n=1\\nx\\ty");
  EXPECT_EQ(lines.back(), "<Info>: <" + longText + ">");
  EXPECT_EQ(files_->writesTo(fd), static_cast<int>(lines.size()));
}

// Lines are scanned in blocks: a control character must be found wherever it falls relative to
// the blocks, including one or two of them in the last, partial block.
TEST_F(SystemLogTest, ControlCharactersAreFoundAtEveryPositionOfEveryLength) {
  attach("scan.log");
  std::vector<std::string> expected;
  for (size_t length = 1; length <= 40; ++length) {
    for (size_t at = 0; at < length; ++at) {
      std::string text(length, 'a');
      text[at] = '\x01';
      std::string written = text.substr(0, at) + "\\x01" + text.substr(at + 1);
      if (at + 2 < length) {
        text[at + 2] = '\t';
        written = text.substr(0, at) + "\\x01a\\t" + text.substr(at + 3);
      }
      vsl_log(client_, nullptr, 6, "%s", text.c_str());
      expected.push_back("<Info>: " + written);
    }
  }
  EXPECT_EQ(lineBodies(paths_[0]), expected);
}

TEST_F(SystemLogTest, OneWritePerLineCompletedOrDroppedWithoutStoppingTheCaller) {
  const int broken = attach("broken.log");
  const int good = attach("good.log");
  EXPECT_EQ(vsl_add_log_file(client_, good), 0);  // attached once only
  EXPECT_EQ(vsl_add_log_file(client_, -1), 0);    // never opened: its writes fail
  files_->failAlways(broken);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(vsl_log(client_, nullptr, 6, "line %d", i), 0);
  EXPECT_EQ(files_->writesTo(broken), 3);
  EXPECT_EQ(files_->writesTo(good), 3);
  EXPECT_EQ(files_->writesTo(-1), 3);

  files_->interruptNext(3);
  files_->limitChunk(7);
  vsl_log(client_, nullptr, 6, "%s", "longer than seven bytes");
  EXPECT_EQ(Sandbox::readFile(paths_[0]), "");
  EXPECT_EQ(lineBodies(paths_[1]),
            (std::vector<std::string>{"<Info>: line 0", "<Info>: line 1", "<Info>: line 2",
                                      "<Info>: longer than seven bytes"}));
  EXPECT_EQ(vsl_log(nullptr, nullptr, 6, "%s", "x"), -1);
}

}  // namespace
}  // namespace kelo
