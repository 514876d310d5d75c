#include "platform/Notify.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "kelo/stats.h"
#include "platform/SerialQueue.h"
#include "tests/support/Sandbox.h"

namespace kelo::platform {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr char kReportName[] = "com.vorn.Kelo.CUMUNotificationReport";

// Deliveries seen by a handler: the token and the state it read.
class Inbox {
 public:
  std::function<void(int)> handler() {
    return [this](int token) {
      uint64_t state = 0;
      const uint32_t status = notify_get_state(token, &state);
      std::lock_guard<std::mutex> lock(mutex_);
      tokens_.push_back(token);
      states_.push_back(status == kNotifyStatusOk ? state : UINT64_MAX);
      changed_.notify_all();
    };
  }
  // Waits until at least `count` deliveries arrived; false after 10 s.
  bool waitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return states_.size() >= count; });
  }
  std::vector<uint64_t> states() {
    std::lock_guard<std::mutex> lock(mutex_);
    return states_;
  }
  std::vector<int> tokens() {
    std::lock_guard<std::mutex> lock(mutex_);
    return tokens_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<int> tokens_;
  std::vector<uint64_t> states_;
};

// A one-shot gate a test holds shut while it arranges things.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

// A second process, forked before the test starts any thread. It blocks until the parent calls
// go(), runs `body`, and exits with body's result.
class Child {
 public:
  explicit Child(std::function<int()> body) {
    int fds[2];
    if (::pipe(fds) != 0) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(fds[1]);
      char byte;
      const int code = ::read(fds[0], &byte, 1) == 1 ? body() : 99;
      ::_exit(code);
    }
    ::close(fds[0]);
    goFd_ = fds[1];
  }
  ~Child() {
    if (goFd_ >= 0) ::close(goFd_);
    if (pid_ > 0 && !reaped_) ::waitpid(pid_, nullptr, 0);
  }
  void go() {
    const char byte = 1;
    ASSERT_EQ(::write(goFd_, &byte, 1), 1);
  }
  // The child's exit code, or -1 if it did not exit normally.
  int wait() {
    int status = 0;
    if (::waitpid(pid_, &status, 0) != pid_) return -1;
    reaped_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int goFd_ = -1;
  bool reaped_ = false;
};

std::string folder(const test::Sandbox& sandbox) { return sandbox.rootPath() + "/run/kelo/notify"; }

int postWithState(const char* name, uint64_t state) {
  int token = 0;
  if (notify_register_check(name, &token) != kNotifyStatusOk) return 1;
  if (notify_set_state(token, state) != kNotifyStatusOk) return 2;
  if (notify_post(name) != kNotifyStatusOk) return 3;
  return notify_cancel(token) == kNotifyStatusOk ? 0 : 4;
}

TEST(Notify, PostFromAnotherProcessWakesHandlerOnItsQueueWithTheState) {
  test::Sandbox sandbox;
  sandbox.install();
  Child child([] { return postWithState("com.test.ping", 0xABCDEF0123456789ULL); });

  SerialQueue queue("com.test.notify");
  Inbox inbox;
  bool onQueue = false;
  int token = 0;
  ASSERT_EQ(notify_register_dispatch("com.test.ping", &token, &queue,
                                     [&, inner = inbox.handler()](int t) {
                                       onQueue = queue.isCurrent();
                                       inner(t);
                                     }),
            kNotifyStatusOk);
  EXPECT_NE(token, 0);
  child.go();
  EXPECT_EQ(child.wait(), 0);
  ASSERT_TRUE(inbox.waitFor(1));
  EXPECT_EQ(inbox.states().front(), 0xABCDEF0123456789ULL);
  EXPECT_EQ(inbox.tokens().front(), token);
  EXPECT_TRUE(onQueue);
  EXPECT_EQ(notify_cancel(token), kNotifyStatusOk);
}

TEST(Notify, SetStateAloneWakesNobodyAndQueuedPostsCoalesceToTheLatestState) {
  test::Sandbox sandbox;
  sandbox.install();
  SerialQueue queue("com.test.busy");
  SerialQueue markerQueue("com.test.marker");
  Inbox inbox;
  Inbox marker;
  int token = 0;
  int markerToken = 0;
  ASSERT_EQ(notify_register_dispatch("a", &token, &queue, inbox.handler()), kNotifyStatusOk);
  ASSERT_EQ(notify_register_dispatch("marker", &markerToken, &markerQueue, marker.handler()),
            kNotifyStatusOk);

  int sender = 0;
  ASSERT_EQ(notify_register_check("a", &sender), kNotifyStatusOk);
  ASSERT_EQ(notify_set_state(sender, 1), kNotifyStatusOk);
  // Events are handled in order: once the marker arrives, "a"'s events were seen.
  ASSERT_EQ(notify_post("marker"), kNotifyStatusOk);
  ASSERT_TRUE(marker.waitFor(1));
  EXPECT_TRUE(inbox.states().empty());

  Gate release;
  queue.post([&] { release.wait(); });
  for (uint64_t state = 2; state <= 6; ++state) {
    ASSERT_EQ(notify_set_state(sender, state), kNotifyStatusOk);
    ASSERT_EQ(notify_post("a"), kNotifyStatusOk);
  }
  ASSERT_EQ(notify_post("marker"), kNotifyStatusOk);
  ASSERT_TRUE(marker.waitFor(2));
  release.open();
  queue.sync([] {});
  EXPECT_EQ(inbox.states(), std::vector<uint64_t>{6});

  ASSERT_EQ(notify_set_state(sender, 7), kNotifyStatusOk);
  ASSERT_EQ(notify_post("a"), kNotifyStatusOk);
  ASSERT_TRUE(inbox.waitFor(2));
  EXPECT_EQ(inbox.states(), (std::vector<uint64_t>{6, 7}));
  notify_cancel(sender);
}

TEST(Notify, CancelStopsDeliveriesIncludingOneAlreadyQueued) {
  test::Sandbox sandbox;
  sandbox.install();
  SerialQueue queue("com.test.cancel");
  SerialQueue markerQueue("com.test.marker");
  Inbox inbox;
  Inbox other;
  Inbox marker;
  int token = 0;
  int otherToken = 0;
  int markerToken = 0;
  ASSERT_EQ(notify_register_dispatch("b", &token, &queue, inbox.handler()), kNotifyStatusOk);
  ASSERT_EQ(notify_register_dispatch("b", &otherToken, &markerQueue, other.handler()),
            kNotifyStatusOk);
  ASSERT_EQ(notify_register_dispatch("marker", &markerToken, &markerQueue, marker.handler()),
            kNotifyStatusOk);
  ASSERT_NE(token, otherToken);

  Gate release;
  queue.post([&] { release.wait(); });
  ASSERT_EQ(notify_post("b"), kNotifyStatusOk);
  ASSERT_EQ(notify_post("marker"), kNotifyStatusOk);
  ASSERT_TRUE(marker.waitFor(1));
  EXPECT_EQ(notify_cancel(token), kNotifyStatusOk);
  release.open();
  queue.sync([] {});

  ASSERT_EQ(notify_post("b"), kNotifyStatusOk);
  ASSERT_EQ(notify_post("marker"), kNotifyStatusOk);
  ASSERT_TRUE(marker.waitFor(2));
  queue.sync([] {});
  EXPECT_TRUE(inbox.states().empty());
  // The other registration of the same name keeps receiving.
  EXPECT_TRUE(other.waitFor(2));

  uint64_t state = 0;
  EXPECT_EQ(notify_cancel(token), kNotifyStatusInvalidToken);
  EXPECT_EQ(notify_get_state(token, &state), kNotifyStatusInvalidToken);
  EXPECT_EQ(notify_set_state(token, 1), kNotifyStatusInvalidToken);
  EXPECT_EQ(notify_get_state(otherToken, &state), kNotifyStatusOk);
}

// Fills the watcher's inotify queue while its thread is held inside a handler, so that a later
// post of another name is lost with the overflow; only re-reading every name delivers it.
TEST(Notify, LostInotifyEventsAreRecoveredByRereadingEveryName) {
  std::ifstream limitFile("/proc/sys/fs/inotify/max_queued_events");
  long limit = 0;
  limitFile >> limit;
  if (limit <= 0 || limit > 200000) GTEST_SKIP() << "inotify queue limit " << limit;

  test::Sandbox sandbox;
  sandbox.install();
  int floodPipe[2];
  ASSERT_EQ(::pipe(floodPipe), 0);
  Child child([&] {
    if (postWithState("held", 1) != 0) return 1;
    char byte;
    if (::read(floodPipe[0], &byte, 1) != 1) return 2;
    for (long i = 0; i < limit + 100; ++i) {
      // Alternating names: the kernel folds an event into an identical previous one.
      if (notify_post(i % 2 == 0 ? "x" : "y") != kNotifyStatusOk) return 3;
    }
    return postWithState("late", 77) == 0 ? 0 : 4;
  });

  SerialQueue heldQueue("com.test.held");
  SerialQueue lateQueue("com.test.late");
  Gate entered;
  Gate release;
  Inbox late;
  int heldToken = 0;
  int lateToken = 0;
  ASSERT_EQ(notify_register_dispatch("held", &heldToken, &heldQueue,
                                     [&](int) {
                                       entered.open();
                                       release.wait();
                                     }),
            kNotifyStatusOk);
  ASSERT_EQ(notify_register_dispatch("late", &lateToken, &lateQueue, late.handler()),
            kNotifyStatusOk);
  child.go();
  // The queue was idle, so the handler runs on the watcher thread and holds it.
  ASSERT_TRUE(entered.wait());
  const char byte = 1;
  ASSERT_EQ(::write(floodPipe[1], &byte, 1), 1);
  EXPECT_EQ(child.wait(), 0);
  release.open();
  ASSERT_TRUE(late.waitFor(1));
  EXPECT_EQ(late.states().front(), 77u);
  ::close(floodPipe[0]);
  ::close(floodPipe[1]);
}

TEST(Notify, InvalidNamesAndArgumentsAreRefused) {
  test::Sandbox sandbox;
  sandbox.install();
  SerialQueue queue("com.test.names");
  const std::string tooLong(kNotifyMaxNameLength + 1, 'n');
  for (const char* name : {"", "a/b", "/abs", ".", "..", tooLong.c_str(), (const char*)nullptr}) {
    SCOPED_TRACE(name == nullptr ? "null" : name);
    int token = 0;
    EXPECT_EQ(notify_register_check(name, &token), kNotifyStatusInvalidName);
    EXPECT_EQ(notify_post(name), kNotifyStatusInvalidName);
    EXPECT_EQ(notify_register_dispatch(name, &token, &queue, [](int) {}),
              kNotifyStatusInvalidName);
  }
  int token = 0;
  const std::string longest(kNotifyMaxNameLength, 'n');
  EXPECT_EQ(notify_register_check(longest.c_str(), &token), kNotifyStatusOk);
  EXPECT_EQ(notify_register_check("ok", nullptr), kNotifyStatusInvalidArgument);
  EXPECT_EQ(notify_register_dispatch("ok", &token, nullptr, [](int) {}),
            kNotifyStatusInvalidArgument);
  EXPECT_EQ(notify_register_dispatch("ok", &token, &queue, nullptr), kNotifyStatusInvalidArgument);
  EXPECT_EQ(notify_get_state(token, nullptr), kNotifyStatusInvalidArgument);
  // Nothing outside the folder was created.
  EXPECT_FALSE(fs::exists(sandbox.rootPath() + "/run/kelo/b"));
}

TEST(Notify, CreatesTheFolderAndStateFilesWithTheFoldersBitsMinusExecute) {
  test::Sandbox sandbox;
  sandbox.install();
  const mode_t old = ::umask(077);
  int token = 0;
  ASSERT_EQ(notify_register_check("first", &token), kNotifyStatusOk);
  struct stat st;
  ASSERT_EQ(::stat(folder(sandbox).c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  ::chmod(folder(sandbox).c_str(), 0775);
  int second = 0;
  ASSERT_EQ(notify_register_check("second", &second), kNotifyStatusOk);
  ::umask(old);
  ASSERT_EQ(::stat((folder(sandbox) + "/second").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0664u);
  // A fresh name reads as 0 and keeps what was set.
  uint64_t state = 1;
  ASSERT_EQ(notify_get_state(second, &state), kNotifyStatusOk);
  EXPECT_EQ(state, 0u);
  ASSERT_EQ(notify_set_state(second, 42), kNotifyStatusOk);
  ASSERT_EQ(notify_get_state(second, &state), kNotifyStatusOk);
  EXPECT_EQ(state, 42u);
}

TEST(Notify, LinksOtherFileKindsAndStrangersFilesAreRefused) {
  test::Sandbox sandbox;
  sandbox.install();
  int token = 0;
  ASSERT_EQ(notify_register_check("setup", &token), kNotifyStatusOk);
  const std::string dir = folder(sandbox);
  const std::string target = sandbox.rootPath() + "/target";
  test::Sandbox::writeFile(target, "0123456789abcdef");
  fs::create_symlink(target, dir + "/linked");
  ASSERT_EQ(::mkfifo((dir + "/fifo").c_str(), 0644), 0);
  fs::create_directory(dir + "/subdir");

  SerialQueue queue("com.test.refused");
  for (const char* name : {"linked", "fifo", "subdir"}) {
    SCOPED_TRACE(name);
    int t = 0;
    EXPECT_EQ(notify_register_check(name, &t), kNotifyStatusNotAuthorized);
    EXPECT_EQ(notify_post(name), kNotifyStatusNotAuthorized);
    EXPECT_EQ(notify_register_dispatch(name, &t, &queue, [](int) {}), kNotifyStatusNotAuthorized);
  }
  EXPECT_EQ(test::Sandbox::readFile(target), "0123456789abcdef");

  if (::geteuid() == 0) {
    test::Sandbox::writeFile(dir + "/stranger", "");
    ASSERT_EQ(::chown((dir + "/stranger").c_str(), 12345, 12345), 0);
    int t = 0;
    EXPECT_EQ(notify_register_check("stranger", &t), kNotifyStatusNotAuthorized);
    EXPECT_EQ(notify_post("stranger"), kNotifyStatusNotAuthorized);
  }
}

// Root may write anything, so the folder's rule is checked from a child that drops to an
// unprivileged user; otherwise the folder is made read-only for its owner.
TEST(Notify, OnlyWhoMayWriteTheFolderMayPostButOthersMayListen) {
  test::Sandbox sandbox;
  sandbox.install();
  const bool root = ::geteuid() == 0;
  // Forked first: a process that already holds a name's file open keeps it.
  Child child([root] {
    if (root && (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)) {
      return 10;
    }
    int t = 0;
    if (notify_register_check("guarded", &t) != kNotifyStatusNotAuthorized) return 1;
    if (notify_post("guarded") != kNotifyStatusNotAuthorized) return 2;
    if (notify_register_check("fresh", &t) != kNotifyStatusNotAuthorized) return 3;
    reportCumu(1, 1, 1);  // refused silently
    SerialQueue queue("com.test.listener");
    int listen = 0;
    if (notify_register_dispatch("guarded", &listen, &queue, [](int) {}) != kNotifyStatusOk) {
      return 4;
    }
    uint64_t state = 0;
    if (notify_get_state(listen, &state) != kNotifyStatusOk || state != 5) return 5;
    return 0;
  });

  int token = 0;
  ASSERT_EQ(notify_register_check("guarded", &token), kNotifyStatusOk);
  ASSERT_EQ(notify_set_state(token, 5), kNotifyStatusOk);
  const std::string dir = folder(sandbox);
  // Root may write anything, so the child drops to an unprivileged user; otherwise the folder
  // is made read-only for its owner.
  if (root) {
    for (fs::path p = dir; p != fs::path("/"); p = p.parent_path()) {
      fs::permissions(p, fs::perms::others_exec, fs::perm_options::add);
    }
  } else {
    ASSERT_EQ(::chmod(dir.c_str(), 0555), 0);
  }
  child.go();
  EXPECT_EQ(child.wait(), 0);
  uint64_t state = 0;
  ASSERT_EQ(notify_get_state(token, &state), kNotifyStatusOk);
  EXPECT_EQ(state, 5u);
  EXPECT_FALSE(fs::exists(dir + "/fresh"));
  EXPECT_FALSE(fs::exists(dir + "/" + kReportName));
}

struct ReportCase {
  int64_t type, data, energy;
  uint64_t state;
};

TEST(Report, PacksTypeDataAndEnergyIntoTheStateWord) {
  test::Sandbox sandbox;
  sandbox.install();
  int token = 0;
  ASSERT_EQ(notify_register_check(kReportName, &token), kNotifyStatusOk);
  const ReportCase cases[] = {
      {1, 100, 5, 0x0005'0000'0000'0641ULL},
      {1, 0x100000000000LL, 0, 1},  // data bit 44 is lost
      {2, 0, 0x12345, 0x2345'0000'0000'0002ULL},
      {2, -1, 0, 0x0000'FFFF'FFFF'FFF2ULL},
      {1, 0, -1, 0xFFFF'0000'0000'0001ULL},
      {1, -16, -2, 0xFFFE'FFFF'FFFF'FF01ULL},
      {0x13, 7, 3, 0x0003'0000'0000'0073ULL},  // type keeps its low 4 bits
      {-1, 0, 0, 0xF},
  };
  for (const ReportCase& c : cases) {
    SCOPED_TRACE(c.state);
    reportCumu(c.type, c.data, c.energy);
    uint64_t state = 0;
    ASSERT_EQ(notify_get_state(token, &state), kNotifyStatusOk);
    EXPECT_EQ(state, c.state);
  }
  uint64_t state = 0;
  reportCumuBackgroundDownload(3, 4);
  ASSERT_EQ(notify_get_state(token, &state), kNotifyStatusOk);
  EXPECT_EQ(state, 0x0004'0000'0000'0031ULL);
  reportCumuNonDiscretionaryBackgroundDownload(3, 4);
  ASSERT_EQ(notify_get_state(token, &state), kNotifyStatusOk);
  EXPECT_EQ(state, 0x0004'0000'0000'0032ULL);
}

// While armed, state files open read-only whatever was asked: the state cannot be stored.
class ReadOnlyOpens : public FileSystem {
 public:
  int open(const char* path, int flags, mode_t mode) override {
    if (armed) flags = (flags & ~(O_RDWR | O_WRONLY | O_CREAT | O_EXCL)) | O_RDONLY;
    return FileSystem::open(path, flags, mode);
  }
  std::atomic<bool> armed{false};
};

TEST(Report, EachReportWakesTheListenerAndAFailedStateWritePostsNothing) {
  test::Sandbox sandbox;
  auto files = std::make_shared<ReadOnlyOpens>();
  kelo::platform::Overrides overrides;
  overrides.fileSystem = files;
  sandbox.install(std::move(overrides));
  Child child([] {
    reportCumuBackgroundDownload(10, 1);
    return 0;
  });
  SerialQueue queue("com.test.collector");
  SerialQueue markerQueue("com.test.marker");
  Inbox inbox;
  Inbox marker;
  int token = 0;
  int markerToken = 0;
  ASSERT_EQ(notify_register_dispatch(kReportName, &token, &queue, inbox.handler()),
            kNotifyStatusOk);
  ASSERT_EQ(notify_register_dispatch("marker", &markerToken, &markerQueue, marker.handler()),
            kNotifyStatusOk);
  child.go();
  EXPECT_EQ(child.wait(), 0);
  ASSERT_TRUE(inbox.waitFor(1));
  EXPECT_EQ(inbox.states().back(), 0x0001'0000'0000'00A1ULL);

  // This process opens the report's file for the first time here, read-only.
  files->armed = true;
  reportCumuNonDiscretionaryBackgroundDownload(20, 2);
  files->armed = false;
  ASSERT_EQ(notify_post("marker"), kNotifyStatusOk);
  ASSERT_TRUE(marker.waitFor(1));
  queue.sync([] {});
  EXPECT_EQ(inbox.states().size(), 1u);
  // The file the process keeps is still the read-only one.
  int sender = 0;
  ASSERT_EQ(notify_register_check(kReportName, &sender), kNotifyStatusOk);
  EXPECT_EQ(notify_set_state(sender, 9), kNotifyStatusFailed);
  EXPECT_EQ(notify_post(kReportName), kNotifyStatusFailed);
}

}  // namespace
}  // namespace kelo::platform
