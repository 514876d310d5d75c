#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kelo/KeloLogger.h"
#include "kelo/logging.h"
#include "tests/logging/LogFiles.h"
#include "tests/support/ChildProcess.h"

namespace kelo {
namespace {

using test::Sandbox;

// The texts of the lines of a log file, all of them "<Info>".
std::vector<std::string> texts(const std::string& path) {
  std::vector<std::string> out = test::lineBodies(path);
  for (std::string& body : out) EXPECT_EQ(body.rfind("<Info>: ", 0), 0u) << body;
  for (std::string& body : out) body.erase(0, 8);
  return out;
}

class CLoggingFrontTest : public ::testing::Test {
 protected:
  void SetUp() override {
    files_ = std::make_shared<test::RecordingFileSystem>();
    platform::Overrides o;
    o.fileSystem = files_;
    sandbox_.install(o);
  }

  std::string detailedPath() const {
    return sandbox_.homePath() + "/Library/Logs/KeloLoggingDetailed.kelotest";
  }
  std::string simplePath() const {
    return sandbox_.homePath() + "/Library/Logs/KeloLoggingSimple.kelotest";
  }

  // Returns once the switches ran.
  static void switchLoggers(bool detailed, bool simple) {
    KELO_CLOGMODE(detailed);
    KeloLogger::instance(1)->setLoggingMode(simple);
    drain();
  }
  static void drain() {
    KeloLogger::instance(0)->logToFileCString(nullptr);
    KeloLogger::instance(1)->logToFileCString(nullptr);
  }

  Sandbox sandbox_;
  std::shared_ptr<test::RecordingFileSystem> files_;
};

// A daemon that logs right after switching a logger on and then exits keeps its lines: they
// wait on the queue for the switch (slowed down here) instead of being dropped by the race.
TEST_F(CLoggingFrontTest, LinesRightAfterASwitchOnReachTheirFileBeforeExit) {
  files_->delayOpens(std::chrono::milliseconds(100));
  test::ChildProcess daemon([] {
    KELO_CLOGMODE(true);
    KeloLogger::instance(1)->setLoggingMode(true);
    KELO_CLOG("detailed %d", 1);
    KELO_CLOG_MASK(2, "simple %d", 2);
    std::exit(0);
    return 1;
  });
  daemon.go();
  ASSERT_EQ(daemon.wait(), 0);
  EXPECT_EQ(texts(detailedPath()), std::vector<std::string>{"detailed 1"});
  EXPECT_EQ(texts(simplePath()), std::vector<std::string>{"simple 2"});
}

TEST_F(CLoggingFrontTest, OffCostsNoArgumentEvaluationOnceTheLoggersExist) {
  int evaluated = 0;
  // Nothing exists yet: the gate lets the first call in, which creates both loggers.
  EXPECT_EQ(kelo_clog_gate, 1);
  EXPECT_EQ(kelo_clog_mask_gate, 1);
  EXPECT_EQ(KeloLogger::instance(1), nullptr);
  KELO_CLOG("%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
  ASSERT_NE(KeloLogger::instance(1), nullptr);
  EXPECT_EQ(kelo_clog_gate, 0);
  EXPECT_EQ(kelo_clog_mask_gate, 0);

  KELO_CLOG("%d", ++evaluated);
  KELO_CLOG_MASK(3, "%d", ++evaluated);
  KELO_ConsoleLog((++evaluated, "x"));
  EXPECT_EQ(evaluated, 1);
  // The functions themselves, called past the gate, drop the line as well.
  (KELO_CLOG)("%s", "direct");
  (KELO_CLOG_MASK)(3, "%s", "direct");
  (KELO_ConsoleLog)("direct");
  drain();
  EXPECT_FALSE(Sandbox::exists(detailedPath()));
  EXPECT_FALSE(Sandbox::exists(simplePath()));
}

TEST_F(CLoggingFrontTest, LinesAreCutTo511BytesAndConsoleLogIsNoFormat) {
  KELO_CLOGMODE(true);
  drain();
  EXPECT_TRUE(KeloLogger::instance()->canWriteToFile());
  EXPECT_FALSE(KeloLogger::instance(1)->canWriteToFile());
  KELO_CLOG("%s %d %lld %.2f", "mixed", -7, 1LL << 40, 2.5);
  std::string text;
  for (int i = 0; text.size() < 600; ++i) text += std::to_string(i % 10);
  text.resize(600);
  KELO_CLOG("%s", text.c_str());
  KELO_CLOG_MASK(1, "%s", text.c_str());
  (KELO_CLOG)("%s", text.substr(0, 511).c_str());
  (KELO_CLOG)("%s", text.substr(0, 510).c_str());
  KELO_ConsoleLog("100%d done %s %% %n");
  KELO_ConsoleLog(text.c_str());  // not cut: it is no formatted line
  KELO_ConsoleLog(nullptr);
  KELO_CLOGMODE(false);
  drain();
  KELO_CLOG("after off");
  const std::string cut = text.substr(0, 511);
  EXPECT_EQ(texts(detailedPath()),
            (std::vector<std::string>{"mixed -7 1099511627776 2.50", cut, cut, cut,
                                      text.substr(0, 510), "100%d done %s %% %n", text}));
  EXPECT_FALSE(Sandbox::exists(simplePath()));
}

// Every mask against every pair of switches: the line goes to each selected logger that is on,
// detailed first, and the arguments are evaluated whenever either logger is on.
TEST_F(CLoggingFrontTest, MaskSendsTheLineToEachSelectedLoggerThatIsOnDetailedFirst) {
  KeloLogger::instance();
  std::vector<std::string> toDetailed, toSimple, writes;
  for (const uint64_t mask : {0ULL, 1ULL, 2ULL, 3ULL, 0xFFFFFFFFFFFFFFFCULL}) {
    for (const int on : {0, 1, 2, 3}) {
      const bool detailedOn = (on & 1) != 0, simpleOn = (on & 2) != 0;
      switchLoggers(detailedOn, simpleOn);
      EXPECT_EQ(kelo_clog_gate, detailedOn ? 1 : 0);
      EXPECT_EQ(kelo_clog_mask_gate, detailedOn || simpleOn ? 1 : 0);
      int evaluated = 0;
      KELO_CLOG_MASK(mask, "mask %llu on %d n=%d", static_cast<unsigned long long>(mask), on,
                     ++evaluated);
      EXPECT_EQ(evaluated, on != 0 ? 1 : 0) << mask << " " << on;
      const std::string line = "mask " + std::to_string(mask) + " on " + std::to_string(on) + " n=1";
      if (detailedOn && (mask & 1) != 0) {
        toDetailed.push_back(line);
        writes.push_back(detailedPath());
      }
      if (simpleOn && (mask & 2) != 0) {
        toSimple.push_back(line);
        writes.push_back(simplePath());
      }
    }
  }
  drain();
  EXPECT_EQ(texts(detailedPath()), toDetailed);
  EXPECT_EQ(texts(simplePath()), toSimple);
  EXPECT_EQ(files_->writtenPaths(), writes);
}

TEST_F(CLoggingFrontTest, EightThreadsGiveExactlyTheLinesSentNoneTorn) {
  KeloLogger::instance();
  switchLoggers(true, true);
  constexpr int kThreads = 8;
  constexpr int kLines = 400;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const std::string padding(static_cast<size_t>(20 + 40 * t), static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) {
        if (t % 2 == 0) {
          KELO_CLOG("thread %d line %d %s", t, i, padding.c_str());
        } else {
          KELO_CLOG_MASK(3, "thread %d line %d %s", t, i, padding.c_str());
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();

  auto check = [&](const std::string& path, bool onlyMasked) {
    std::map<int, int> next;  // per thread, the line expected next: each thread's order holds
    size_t count = 0;
    for (const std::string& text : texts(path)) {
      int t = -1, i = -1;
      char rest[512] = {};
      ASSERT_EQ(std::sscanf(text.c_str(), "thread %d line %d %511s", &t, &i, rest), 3) << text;
      ASSERT_TRUE(t >= 0 && t < kThreads) << text;
      EXPECT_EQ(std::string(rest), std::string(static_cast<size_t>(20 + 40 * t),
                                               static_cast<char>('a' + t)));
      EXPECT_EQ(i, next[t]++) << text;
      ++count;
    }
    const int writers = onlyMasked ? kThreads / 2 : kThreads;
    EXPECT_EQ(count, static_cast<size_t>(writers * kLines));
    for (const auto& [t, n] : next) EXPECT_EQ(n, kLines) << "thread " << t;
  };
  check(detailedPath(), false);
  check(simplePath(), true);
}

TEST_F(CLoggingFrontTest, SwitchingWhileOtherThreadsLogKeepsEveryWrittenLineWhole) {
  KeloLogger::instance();
  std::atomic<bool> done{false};
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([t, &done] {
      for (int i = 0; !done.load(); ++i) {
        KELO_CLOG("writer %d line %d", t, i);
        KELO_CLOG_MASK(2, "writer %d masked %d", t, i);
      }
    });
  }
  for (int round = 0; round < 100; ++round) {
    KELO_CLOGMODE(round % 2 == 0);
    KeloLogger::instance(1)->setLoggingMode(round % 3 == 0);
  }
  switchLoggers(false, false);
  done = true;
  for (std::thread& t : writers) t.join();

  std::set<std::string> seen;
  for (const std::string& path : {detailedPath(), simplePath()}) {
    for (const std::string& text : texts(path)) {
      EXPECT_TRUE(std::regex_match(text, std::regex(R"(writer \d (line|masked) \d+)"))) << text;
      EXPECT_TRUE(seen.insert(text).second) << "written twice: " << text;
    }
  }
}

}  // namespace
}  // namespace kelo
