#include "platform/Metrics.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <syslog.h>

#include <chrono>
#include <filesystem>
#include <limits>
#include <optional>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/InMemoryMetrics.h"
#include "tests/support/Sandbox.h"

namespace kelo::platform {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::Pipe;
using Rows = std::vector<std::pair<std::string, int64_t>>;
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

std::optional<int64_t> stored(const std::string& key) {
  for (const auto& [k, v] : readMetricsDatabase(metricsDatabasePath()).rows) {
    if (k == key) return v;
  }
  return std::nullopt;
}

class Metrics : public ::testing::Test {
 protected:
  void SetUp() override { sandbox.install(); }
  test::Sandbox sandbox;
};

TEST_F(Metrics, EightProcessesAddingConcurrentlyLoseNothing) {
  std::vector<ChildProcess> workers;
  for (int i = 0; i < 8; ++i) {
    workers.emplace_back([] {
      for (int n = 0; n < 1000; ++n) CumuClientAddValueForScalarKey("com.test.count", 1);
      return 0;
    });
  }
  for (ChildProcess& w : workers) w.go();
  for (ChildProcess& w : workers) EXPECT_EQ(w.wait(), 0);
  EXPECT_EQ(stored("com.test.count"), 8000);
  EXPECT_TRUE(sandbox.systemLines().empty()) << "contention is waited out, not a failure";
}

TEST_F(Metrics, SetReplacesAddAccumulatesAndTheReaderSortsByKey) {
  CumuClientAddValueForScalarKey("b.total", 5);
  CumuClientAddValueForScalarKey("b.total", -2);
  CumuClientSetValueForScalarKey("c.level", 10);
  CumuClientSetValueForScalarKey("c.level", -7);
  CumuClientAddValueForScalarKey("a.wrap", kMax);
  CumuClientAddValueForScalarKey("a.wrap", 2);
  CumuClientAddValueForScalarKey("d.replaced", 3);
  CumuClientSetValueForScalarKey("d.replaced", 1);

  const MetricsReadResult read = readMetricsDatabase(metricsDatabasePath());
  ASSERT_TRUE(read.ok) << read.error;
  EXPECT_EQ(read.rows,
            (Rows{{"a.wrap", kMin + 1}, {"b.total", 3}, {"c.level", -7}, {"d.replaced", 1}}));
  EXPECT_EQ(metricsDatabasePath(), sandbox.homePath() + "/Library/Metrics/KeloMetrics.db");
}

TEST_F(Metrics, ReadingSomethingThatIsNotAMetricsDatabaseSaysWhy) {
  const std::string missing = sandbox.homePath() + "/missing.db",
                    text = sandbox.homePath() + "/text.db",
                    other = sandbox.homePath() + "/other.db";
  test::Sandbox::writeFile(text, std::string(2000, 'x'));
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(other.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(x)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);

  EXPECT_EQ(readMetricsDatabase(missing).error, "no such file: " + missing);
  EXPECT_FALSE(std::filesystem::exists(missing));
  for (const std::string& path : {text, other}) {
    const MetricsReadResult read = readMetricsDatabase(path);
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(read.error.rfind("not a metrics database: " + path + ": ", 0), 0u) << read.error;
  }
}

// A second process that holds the database with BEGIN EXCLUSIVE from lock() to release().
class Locker {
 public:
  explicit Locker(const std::string& path) : child_([this, path] { return run(path); }) {}
  bool lock() {
    child_.go();
    return locked_.receive();
  }
  int release() { return release_.send() ? child_.wait() : -1; }

 private:
  int run(const std::string& path) {
    sqlite3* db = nullptr;
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) return 1;
    sqlite3_busy_timeout(db, 5000);
    if (sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK) return 2;
    if (!locked_.send() || !release_.receive()) return 3;
    return sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : 4;
  }
  Pipe locked_, release_;
  ChildProcess child_;
};

TEST_F(Metrics, AWriterWaitsForADatabaseLockedByAnotherProcess) {
  Locker locker(metricsDatabasePath());
  CumuClientSetValueForScalarKey("seed", 1);
  ASSERT_TRUE(locker.lock());
  std::thread releaser([&] {
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(locker.release(), 0);
  });
  CumuClientAddValueForScalarKey("seed", 41);
  releaser.join();
  EXPECT_EQ(stored("seed"), 42);
  EXPECT_TRUE(sandbox.systemLines().empty());
}

TEST_F(Metrics, ValuesWrittenWhileLockedPastTheTimeoutArriveInOrderAfterwards) {
  setMetricsBusyTimeoutMs(20);
  Locker locker(metricsDatabasePath()), again(metricsDatabasePath());
  CumuClientSetValueForScalarKey("seed", 1);
  ASSERT_TRUE(locker.lock());
  CumuClientSetValueForScalarKey("level", 5);
  CumuClientAddValueForScalarKey("level", 2);
  CumuClientAddValueForScalarKey("seed", 10);
  ASSERT_EQ(sandbox.systemLines().size(), 1u);
  EXPECT_EQ(sandbox.systemLines()[0].priority, LOG_WARNING);
  EXPECT_NE(sandbox.systemLines()[0].text.find(metricsDatabasePath()), std::string::npos);
  EXPECT_EQ(locker.release(), 0);
  // Nothing else is written: the kept values arrive by themselves.
  for (int i = 0; i < 100 && (stored("level") != 7 || stored("seed") != 11); ++i) {
    std::this_thread::sleep_for(50ms);
  }
  EXPECT_EQ(stored("level"), 7);
  EXPECT_EQ(stored("seed"), 11);

  ASSERT_TRUE(again.lock());
  CumuClientAddValueForScalarKey("seed", 1);
  EXPECT_EQ(again.release(), 0);
  CumuClientAddValueForScalarKey("seed", 1);
  EXPECT_EQ(stored("seed"), 13);
  EXPECT_EQ(sandbox.systemLines().size(), 2u) << "one line per failure episode";
}

// A batch writes its operations together when the outermost batch ends; one that finds the
// database locked past the timeout keeps all of them, in order, and they arrive by themselves.
TEST_F(Metrics, ABatchArrivesWholeWhenItEndsEvenAfterTheDatabaseWasLocked) {
  CumuClientSetValueForScalarKey("seed", 1);
  {
    const MetricsBatch batch;
    CumuClientAddValueForScalarKey("seed", 2);
    {
      const MetricsBatch inner;
      CumuClientSetValueForScalarKey("level", 5);
    }
    EXPECT_EQ(stored("level"), std::nullopt) << "an inner batch leaves the writing to the outer";
    CumuClientAddValueForScalarKey("level", 2);
    EXPECT_EQ(stored("seed"), 1);
  }
  EXPECT_EQ(stored("seed"), 3);
  EXPECT_EQ(stored("level"), 7);

  setMetricsBusyTimeoutMs(20);
  Locker locker(metricsDatabasePath());
  ASSERT_TRUE(locker.lock());
  {
    const MetricsBatch batch;
    CumuClientSetValueForScalarKey("level", 1);
    CumuClientAddValueForScalarKey("level", 1);
    CumuClientAddValueForScalarKey("seed", 10);
  }
  EXPECT_EQ(sandbox.systemLines().size(), 1u);
  EXPECT_EQ(locker.release(), 0);
  for (int i = 0; i < 100 && (stored("level") != 2 || stored("seed") != 13); ++i) {
    std::this_thread::sleep_for(50ms);
  }
  EXPECT_EQ(stored("level"), 2);
  EXPECT_EQ(stored("seed"), 13);
}

TEST_F(Metrics, AChildForkedWhileValuesAreKeptLeavesThemToItsParent) {
  setMetricsBusyTimeoutMs(20);
  Locker locker(metricsDatabasePath());
  CumuClientSetValueForScalarKey("seed", 1);
  ASSERT_TRUE(locker.lock());
  CumuClientAddValueForScalarKey("seed", 10);
  ChildProcess child([] {
    CumuClientAddValueForScalarKey("child", 1);
    return 0;
  });
  EXPECT_EQ(locker.release(), 0);
  for (int i = 0; i < 100 && stored("seed") != 11; ++i) std::this_thread::sleep_for(50ms);
  child.go();
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(stored("child"), 1);
  EXPECT_EQ(stored("seed"), 11);
}

TEST(MetricsSink, AnInstalledSinkReceivesEveryOperationInsteadOfTheDatabase) {
  test::Sandbox sandbox;
  auto sink = std::make_shared<test::InMemoryMetrics>();
  Overrides o;
  o.metrics = sink;
  sandbox.install(o);
  CumuClientAddValueForScalarKey("k", 2);
  CumuClientSetValueForScalarKey("k", 9);
  using Op = test::InMemoryMetrics::Op;
  EXPECT_EQ(sink->entries(),
            (std::vector<test::InMemoryMetrics::Entry>{{Op::kAdd, "k", 2}, {Op::kSet, "k", 9}}));
  EXPECT_FALSE(std::filesystem::exists(sandbox.homePath() + "/Library/Metrics"));
}

}  // namespace
}  // namespace kelo::platform
