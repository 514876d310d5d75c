#include "kelo/KeloLogger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "tests/logging/LogFiles.h"

namespace kelo {
namespace {

namespace fs = std::filesystem;
using test::filesIn;
using test::lineBodies;
using test::Sandbox;

constexpr double kStart = 1415997600.125;
constexpr const char* kStamp = "[1415997600.125000].";

// Writes one line per call and remembers what it was asked.
class RecordingSource : public KeloLoggerProtocol {
 public:
  explicit RecordingSource(std::string name) : name_(std::move(name)) {}

  void logAll(vsl_client_t client, vsl_msg_t msg, int32_t level) override {
    record("all", level);
    vsl_log(client, msg, level, "%s all", name_.c_str());
    vsl_log(client, msg, 5, "%s filtered out", name_.c_str());
  }
  void logLight(vsl_client_t client, vsl_msg_t msg, int32_t level) override {
    record("light", level);
    vsl_log(client, msg, level, "%s light", name_.c_str());
  }

  std::vector<std::string> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

 private:
  void record(const char* what, int32_t level) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(std::string(what) + "@" + std::to_string(level));
  }
  const std::string name_;
  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
};

class KeloLoggerTest : public ::testing::Test {
 protected:
  void install(platform::Overrides extra = {}) { sandbox_.install(std::move(extra)); }

  std::string logs() const { return sandbox_.homePath() + "/Library/Logs"; }
  std::string live() const { return logs() + "/KeloLoggingDetailed.kelotest"; }
  std::string diagnostics() const { return logs() + "/Wreckbox/DiagnosticLogs"; }

  // Returns once everything posted to the logger before has run.
  static void drain(KeloLogger* logger) { logger->logToFileCString(nullptr); }

  Sandbox sandbox_{kStart};
};

TEST_F(KeloLoggerTest, SlotsAreEmptyUntilTheFirstInstanceCreatesBoth) {
  install();
  EXPECT_EQ(KeloLogger::instance(1), nullptr);
  EXPECT_EQ(KeloLogger::instance(0), nullptr);
  KeloLogger* detailed = KeloLogger::instance();
  ASSERT_NE(detailed, nullptr);
  EXPECT_EQ(KeloLogger::instance(), detailed);
  EXPECT_EQ(KeloLogger::instance(0), detailed);
  ASSERT_NE(KeloLogger::instance(1), nullptr);
  EXPECT_NE(KeloLogger::instance(1), detailed);
  EXPECT_EQ(KeloLogger::instance(2), nullptr);
  EXPECT_EQ(KeloLogger::instance(-1), nullptr);
  EXPECT_FALSE(detailed->canWriteToFile());
  EXPECT_FALSE(KeloLogger::instance(1)->canWriteToFile());
  drain(detailed);  // creation touches no file
  EXPECT_TRUE(filesIn(sandbox_.homePath()).empty());
}

struct RotationCase {
  const char* name;
  std::optional<Value> answer;
  bool rotates;
};

class RotationTest : public KeloLoggerTest, public ::testing::WithParamInterface<RotationCase> {};

TEST_P(RotationTest, FirstSwitchOnRotatesUnlessTheDeviceSaysOtherwise) {
  ::umask(022);  // the modes asked for, as a usual session would give them
  platform::Overrides o;
  if (GetParam().answer) o.deviceAnswers = Value::dictionary({{"InternalBuild", *GetParam().answer}});
  install(o);
  Sandbox::writeFile(live(), "previous process\n");

  KeloLogger* logger = KeloLogger::instance();
  logger->setLoggingMode(true);
  logger->logToFileCString("fresh");

  const std::string rotated = std::string("KeloLoggingDetailed.") + kStamp + "kelotest";
  if (GetParam().rotates) {
    EXPECT_EQ(filesIn(diagnostics()), std::vector<std::string>{rotated});
    EXPECT_EQ(Sandbox::readFile(diagnostics() + "/" + rotated), "previous process\n");
    EXPECT_EQ(lineBodies(live()), std::vector<std::string>{"<Info>: fresh"});
    EXPECT_EQ(logger->getUniqueFileName(), diagnostics() + "/" + rotated);
    EXPECT_EQ(fs::status(diagnostics()).permissions() & fs::perms::all, fs::perms(0755));
    EXPECT_EQ(fs::status(live()).permissions() & fs::perms::all, fs::perms(0644));
  } else {
    EXPECT_TRUE(filesIn(diagnostics()).empty());
    const std::vector<std::string> lines = Sandbox::readLines(live());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "previous process");
    EXPECT_NE(lines[1].find("<Info>: fresh"), std::string::npos);
  }
  EXPECT_TRUE(sandbox_.consoleLines().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Answers, RotationTest,
    ::testing::Values(RotationCase{"True", Value::boolean(true), true},
                      RotationCase{"Absent", std::nullopt, true},
                      RotationCase{"False", Value::boolean(false), false},
                      RotationCase{"NumberOne", Value::integer(1), false},
                      RotationCase{"StringTrue", Value::string("true"), false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(KeloLoggerTest, ReopeningAppendsWithoutRotatingAndGivesALightLogPerOpening) {
  platform::Overrides o;
  o.deviceAnswers = Value::dictionary({{"InternalBuild", Value::boolean(true)}});
  install(o);
  auto source = std::make_shared<RecordingSource>("src");
  KeloLogger* logger = KeloLogger::instance();
  logger->addDataSource(source);

  logger->setLoggingMode(false);  // while never opened: only the flag
  drain(logger);
  EXPECT_FALSE(logger->canWriteToFile());
  EXPECT_FALSE(Sandbox::exists(live()));

  logger->setLoggingMode(true);
  logger->logToFileCString("one");
  EXPECT_TRUE(logger->canWriteToFile());
  auto late = std::make_shared<RecordingSource>("late");  // waits for the next opening
  logger->addDataSource(late);
  logger->setLoggingMode(false);
  logger->logToFileCString("dropped while closed");
  EXPECT_FALSE(logger->canWriteToFile());
  sandbox_.advance(5);
  logger->setLoggingMode(true);
  logger->setLoggingMode(true);  // already open: only the flag
  logger->logToFileCStringSimpleDebug("two");
  logger->logToFile("three");

  EXPECT_EQ(lineBodies(live()),
            (std::vector<std::string>{"<Info>: src light", "<Info>: one", "<Info>: src light",
                                      "<Info>: late light", "<Debug>: two", "<Info>: three"}));
  EXPECT_EQ(source->calls(), (std::vector<std::string>{"light@6", "light@6"}));
  EXPECT_EQ(late->calls(), std::vector<std::string>{"light@6"});
  EXPECT_FALSE(Sandbox::exists(diagnostics()));
}

TEST_F(KeloLoggerTest, DumpWhileOffWritesEverySourceInOrderAndLeavesTheLiveFileAlone) {
  install();
  auto first = std::make_shared<RecordingSource>("first");
  RecordingSource* second = new RecordingSource("second");  // lives for the process, unowned
  KeloLogger* logger = KeloLogger::instance();
  logger->addDataSource(first);
  logger->addDataSource(second);
  logger->addDataSource(first);  // registered twice, dumped twice
  logger->addDataSource(std::shared_ptr<KeloLoggerProtocol>());
  logger->addDataSource(static_cast<KeloLoggerProtocol*>(nullptr));
  logger->dumpAllLogs();
  drain(logger);

  const std::string dump = std::string("KeloLoggingDetailed.") + kStamp + "kelotest-FullDump.log";
  ASSERT_EQ(filesIn(diagnostics()), std::vector<std::string>{dump});
  EXPECT_EQ(lineBodies(diagnostics() + "/" + dump),
            (std::vector<std::string>{"<Info>: first all", "<Info>: second all",
                                      "<Info>: first all"}));
  EXPECT_EQ(first->calls(), (std::vector<std::string>{"all@6", "all@6"}));
  EXPECT_FALSE(Sandbox::exists(live()));
  EXPECT_FALSE(logger->canWriteToFile());

  logger->setLoggingMode(true);
  sandbox_.advance(1);
  logger->dumpAllLogs();  // a later time stamp: a file of its own, the live file untouched
  drain(logger);
  EXPECT_EQ(filesIn(diagnostics()).size(), 2u);
  EXPECT_EQ(lineBodies(live()), (std::vector<std::string>{"<Info>: first light",
                                                      "<Info>: second light",
                                                      "<Info>: first light"}));
}

TEST_F(KeloLoggerTest, UnwritableHomeWritesNothingAnywhere) {
  // A regular file as home: no folder can be made under it, whoever runs the test.
  const std::string home = sandbox_.homePath() + "/not-a-folder";
  Sandbox::writeFile(home, "");
  platform::Overrides o;
  o.homeDirectory = home;
  install(o);
  auto source = std::make_shared<RecordingSource>("src");
  KeloLogger* logger = KeloLogger::instance();
  logger->addDataSource(source);
  logger->setLoggingMode(true);
  logger->logToFileCString("goes nowhere");
  logger->dumpAllLogs();
  drain(logger);
  // open() gave -1, which is not the failure value 0: the logger carries on and its writes fail.
  EXPECT_TRUE(logger->canWriteToFile());
  EXPECT_EQ(source->calls(), (std::vector<std::string>{"light@6", "all@6"}));
  EXPECT_TRUE(sandbox_.consoleLines().empty());
  EXPECT_EQ(filesIn(sandbox_.homePath()), std::vector<std::string>{"not-a-folder"});
  EXPECT_EQ(Sandbox::readFile(home), "");
  logger->setLoggingMode(false);
  drain(logger);
  EXPECT_FALSE(logger->canWriteToFile());
}

TEST_F(KeloLoggerTest, DescriptorZeroIsTheOpenFailure) {
  install();
  ::close(0);  // the next open returns 0
  auto source = std::make_shared<RecordingSource>("src");
  KeloLogger* logger = KeloLogger::instance();
  logger->addDataSource(source);
  logger->setLoggingMode(true);
  drain(logger);
  std::vector<std::string> console = sandbox_.consoleLines();
  ASSERT_EQ(console.size(), 1u);
  EXPECT_TRUE(std::regex_match(console[0],
                               std::regex(R"(Create Error was code: -?\d+ - message: .+)")))
      << console[0];
  EXPECT_FALSE(logger->canWriteToFile());
  EXPECT_TRUE(source->calls().empty());
  logger->logToFileCString("dropped");
  EXPECT_EQ(Sandbox::readFile(live()), "");

  // The dump file is refused on descriptor 0 the same way.
  ::close(0);
  logger->dumpAllLogs();
  drain(logger);
  EXPECT_EQ(sandbox_.consoleLines().size(), 2u);
  EXPECT_EQ(sandbox_.consoleLines().back().rfind("Create Error was code: ", 0), 0u);
  EXPECT_TRUE(source->calls().empty());
}

}  // namespace
}  // namespace kelo
