#include "platform/Metrics.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/InMemoryMetrics.h"
#include "tests/support/Sandbox.h"

namespace kelo::platform {
namespace {

using namespace std::chrono_literals;
using Rows = std::vector<std::pair<std::string, int64_t>>;

// Forks a process that runs `body` once `go` is written to, and exits with its result.
struct Worker {
  pid_t pid = -1;
  int goFd = -1;

  static Worker start(std::function<int()> body) {
    int fds[2];
    if (::pipe(fds) != 0) std::abort();
    Worker worker;
    worker.pid = ::fork();
    if (worker.pid == 0) {
      ::close(fds[1]);
      char byte;
      ::_exit(::read(fds[0], &byte, 1) == 1 ? body() : 99);
    }
    ::close(fds[0]);
    worker.goFd = fds[1];
    return worker;
  }
  void go() const {
    const char byte = 1;
    if (::write(goFd, &byte, 1) != 1) std::abort();
  }
  int wait() {
    int status = 0;
    ::close(goFd);
    if (::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

std::optional<int64_t> storedValue(const std::string& key) {
  const MetricsReadResult read = readMetricsDatabase(metricsDatabasePath());
  if (!read.ok) return std::nullopt;
  for (const auto& [k, v] : read.rows) {
    if (k == key) return v;
  }
  return std::nullopt;
}

TEST(Metrics, EightProcessesAddingConcurrentlyLoseNothing) {
  test::Sandbox sandbox;
  sandbox.install();
  constexpr int kProcesses = 8;
  constexpr int kAdds = 1000;
  std::vector<Worker> workers;
  for (int i = 0; i < kProcesses; ++i) {
    workers.push_back(Worker::start([] {
      for (int n = 0; n < kAdds; ++n) CumuClientAddValueForScalarKey("com.test.count", 1);
      return 0;
    }));
  }
  for (Worker& w : workers) w.go();
  for (Worker& w : workers) EXPECT_EQ(w.wait(), 0);
  EXPECT_EQ(storedValue("com.test.count"), kProcesses * kAdds);
  // Contention is waited out, never reported as a failure.
  EXPECT_TRUE(sandbox.systemLines().empty());
}

TEST(Metrics, SetReplacesAddAccumulatesAndTheReaderSortsByKey) {
  test::Sandbox sandbox;
  sandbox.install();
  const mode_t old = ::umask(0);
  CumuClientAddValueForScalarKey("b.total", 5);
  ::umask(old);
  CumuClientAddValueForScalarKey("b.total", -2);
  CumuClientSetValueForScalarKey("c.level", 10);
  CumuClientSetValueForScalarKey("c.level", -7);
  CumuClientAddValueForScalarKey("a.wrap", std::numeric_limits<int64_t>::max());
  CumuClientAddValueForScalarKey("a.wrap", 2);
  CumuClientAddValueForScalarKey("d.replaced", 3);
  CumuClientAddValueForScalarKey("d.replaced", 4);
  CumuClientSetValueForScalarKey("d.replaced", 1);

  const MetricsReadResult read = readMetricsDatabase(metricsDatabasePath());
  ASSERT_TRUE(read.ok) << read.error;
  EXPECT_EQ(read.rows, (Rows{{"a.wrap", std::numeric_limits<int64_t>::min() + 1},
                             {"b.total", 3},
                             {"c.level", -7},
                             {"d.replaced", 1}}));
  EXPECT_EQ(metricsDatabasePath(), sandbox.homePath() + "/Library/Metrics/KeloMetrics.db");
  struct stat st;
  ASSERT_EQ(::stat(metricsDatabasePath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0022, 0u) << "writable by others despite umask 0";
}

TEST(Metrics, ReadingSomethingThatIsNotAMetricsDatabaseSaysWhy) {
  test::Sandbox sandbox;
  sandbox.install();
  const std::string missing = sandbox.homePath() + "/missing.db";
  MetricsReadResult read = readMetricsDatabase(missing);
  EXPECT_FALSE(read.ok);
  EXPECT_EQ(read.error, "no such file: " + missing);
  EXPECT_FALSE(std::filesystem::exists(missing));

  const std::string text = sandbox.homePath() + "/text.db";
  test::Sandbox::writeFile(text, std::string(2000, 'x'));
  read = readMetricsDatabase(text);
  EXPECT_FALSE(read.ok);
  EXPECT_NE(read.error.find("not a metrics database: " + text), std::string::npos) << read.error;

  const std::string other = sandbox.homePath() + "/other.db";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(other.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(x)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  read = readMetricsDatabase(other);
  EXPECT_FALSE(read.ok);
  EXPECT_NE(read.error.find("not a metrics database"), std::string::npos) << read.error;
  EXPECT_TRUE(read.rows.empty());
}

// A second process holds the database with BEGIN EXCLUSIVE until told to let go.
struct Locker {
  Worker worker;
  int releaseFd = -1;
  int lockedFd = -1;

  explicit Locker(const std::string& path) {
    int release[2];
    int locked[2];
    if (::pipe(release) != 0 || ::pipe(locked) != 0) std::abort();
    worker = Worker::start([path, release, locked] {
      sqlite3* db = nullptr;
      if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) return 1;
      sqlite3_busy_timeout(db, 5000);
      if (sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK) return 2;
      char byte = 1;
      if (::write(locked[1], &byte, 1) != 1) return 3;
      if (::read(release[0], &byte, 1) != 1) return 4;
      if (sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) return 5;
      sqlite3_close(db);
      return 0;
    });
    ::close(release[0]);
    ::close(locked[1]);
    releaseFd = release[1];
    lockedFd = locked[0];
  }
  bool lock() {
    worker.go();
    char byte;
    return ::read(lockedFd, &byte, 1) == 1;
  }
  void release() const {
    const char byte = 1;
    if (::write(releaseFd, &byte, 1) != 1) std::abort();
  }
  int wait() {
    ::close(releaseFd);
    ::close(lockedFd);
    return worker.wait();
  }
};

TEST(Metrics, AWriterWaitsForADatabaseLockedByAnotherProcess) {
  test::Sandbox sandbox;
  sandbox.install();
  Locker locker(metricsDatabasePath());
  CumuClientSetValueForScalarKey("seed", 1);
  ASSERT_TRUE(locker.lock());
  std::thread releaser([&] {
    std::this_thread::sleep_for(300ms);
    locker.release();
  });
  CumuClientAddValueForScalarKey("seed", 41);
  releaser.join();
  EXPECT_EQ(locker.wait(), 0);
  EXPECT_EQ(storedValue("seed"), 42);
  EXPECT_TRUE(sandbox.systemLines().empty());
}

TEST(Metrics, ValuesWrittenWhileLockedPastTheTimeoutArriveInOrderAfterwards) {
  test::Sandbox sandbox;
  sandbox.install();
  setMetricsBusyTimeoutMs(20);
  Locker locker(metricsDatabasePath());
  CumuClientSetValueForScalarKey("seed", 1);
  ASSERT_TRUE(locker.lock());
  CumuClientSetValueForScalarKey("level", 5);
  CumuClientAddValueForScalarKey("level", 2);
  CumuClientAddValueForScalarKey("seed", 10);
  ASSERT_EQ(sandbox.systemLines().size(), 1u);
  EXPECT_EQ(sandbox.systemLines()[0].priority, LOG_WARNING);
  EXPECT_NE(sandbox.systemLines()[0].text.find(metricsDatabasePath()), std::string::npos);
  locker.release();
  EXPECT_EQ(locker.wait(), 0);

  // Nothing else is written: the kept values arrive by themselves.
  for (int i = 0; i < 100 && (storedValue("level") != 7 || storedValue("seed") != 11); ++i) {
    std::this_thread::sleep_for(50ms);
  }
  EXPECT_EQ(storedValue("level"), 7);
  EXPECT_EQ(storedValue("seed"), 11);

  // A later episode is reported again.
  Locker again(metricsDatabasePath());
  ASSERT_TRUE(again.lock());
  CumuClientAddValueForScalarKey("seed", 1);
  again.release();
  EXPECT_EQ(again.wait(), 0);
  CumuClientAddValueForScalarKey("seed", 1);
  EXPECT_EQ(storedValue("seed"), 13);
  EXPECT_EQ(sandbox.systemLines().size(), 2u);
}

TEST(Metrics, AnInstalledSinkReceivesEveryOperationInsteadOfTheDatabase) {
  test::Sandbox sandbox;
  auto sink = std::make_shared<test::InMemoryMetrics>();
  kelo::platform::Overrides overrides;
  overrides.metrics = sink;
  sandbox.install(std::move(overrides));
  CumuClientAddValueForScalarKey("k", 2);
  CumuClientSetValueForScalarKey("k", 9);
  CumuClientAddValueForScalarKey("k", 1);
  using Op = test::InMemoryMetrics::Op;
  EXPECT_EQ(sink->entries(), (std::vector<test::InMemoryMetrics::Entry>{
                                 {Op::kAdd, "k", 2}, {Op::kSet, "k", 9}, {Op::kAdd, "k", 1}}));
  EXPECT_EQ(sink->valueOf("k"), 10);
  EXPECT_FALSE(std::filesystem::exists(sandbox.homePath() + "/Library/Metrics"));
}

}  // namespace
}  // namespace kelo::platform
