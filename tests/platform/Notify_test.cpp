#include "platform/Notify.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "kelo/stats.h"
#include "platform/SerialQueue.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Sandbox.h"

namespace kelo::platform {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using test::ChildProcess;

constexpr char kReportName[] = "com.vorn.Kelo.CUMUNotificationReport";

// Records each delivery's token and state; hold(true) keeps the handler (and its thread) waiting.
class Inbox {
 public:
  std::function<void(int)> handler() {
    return [this](int token) {
      uint64_t state = 0;
      const bool read = notify_get_state(token, &state) == kNotifyStatusOk;
      std::unique_lock<std::mutex> lock(mutex_);
      tokens_.push_back(token);
      states_.push_back(read ? state : UINT64_MAX);
      changed_.notify_all();
      changed_.wait(lock, [&] { return !holding_; });
    };
  }
  bool waitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return states_.size() >= count; });
  }
  void hold(bool on) {
    std::lock_guard<std::mutex> lock(mutex_);
    holding_ = on;
    changed_.notify_all();
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
  bool holding_ = false;
};

// Once a post of its own name is delivered, the watcher has handled every earlier event.
class Marker {
 public:
  Marker() {
    EXPECT_EQ(notify_register_dispatch("marker", &token_, &queue_, inbox_.handler()), 0u);
  }
  bool sync() {
    ++posts_;
    return notify_post("marker") == kNotifyStatusOk && inbox_.waitFor(posts_);
  }

 private:
  SerialQueue queue_{"com.test.marker"};
  Inbox inbox_;
  int token_ = 0;
  size_t posts_ = 0;
};

int postWithState(const char* name, uint64_t state) {
  int token = 0;
  if (notify_register_check(name, &token) != kNotifyStatusOk) return 1;
  if (notify_set_state(token, state) != kNotifyStatusOk) return 2;
  if (notify_post(name) != kNotifyStatusOk) return 3;
  return notify_cancel(token) == kNotifyStatusOk ? 0 : 4;
}

std::string folder(const test::Sandbox& sandbox) { return sandbox.rootPath() + "/run/kelo/notify"; }

TEST(Notify, PostFromAnotherProcessWakesTheHandlerOnItsQueueWithTheState) {
  test::Sandbox sandbox;
  sandbox.install();
  SerialQueue queue("com.test.notify");
  Inbox inbox;
  bool onQueue = false;
  int token = 0;
  auto handler = [&, inner = inbox.handler()](int t) {
    onQueue = queue.isCurrent();
    inner(t);
  };
  ASSERT_EQ(notify_register_dispatch("com.test.ping", &token, &queue, handler), kNotifyStatusOk);
  // Forked while the watcher thread runs: the child must still be able to post.
  ChildProcess child([] { return postWithState("com.test.ping", 0xABCDEF0123456789ULL); });
  child.go();
  EXPECT_EQ(child.wait(), 0);
  ASSERT_TRUE(inbox.waitFor(1));
  EXPECT_EQ(inbox.states(), std::vector<uint64_t>{0xABCDEF0123456789ULL});
  EXPECT_EQ(inbox.tokens(), std::vector<int>{token});
  EXPECT_TRUE(onQueue);
}

TEST(Notify, SetStateWakesNobodyQueuedPostsCoalesceAndCancelDropsWhatIsQueued) {
  test::Sandbox sandbox;
  sandbox.install();
  SerialQueue queue("com.test.busy");
  SerialQueue otherQueue("com.test.other");
  Inbox inbox, other;
  Marker marker;
  int token = 0, otherToken = 0, sender = 0;
  ASSERT_EQ(notify_register_dispatch("a", &token, &queue, inbox.handler()), kNotifyStatusOk);
  ASSERT_EQ(notify_register_dispatch("a", &otherToken, &otherQueue, other.handler()),
            kNotifyStatusOk);
  ASSERT_EQ(notify_register_check("a", &sender), kNotifyStatusOk);
  ASSERT_NE(token, otherToken);

  ASSERT_EQ(notify_set_state(sender, 1), kNotifyStatusOk);
  ASSERT_TRUE(marker.sync());
  EXPECT_TRUE(inbox.states().empty());

  // A busy queue: the first post queues a delivery, the later ones fold into it.
  std::promise<void> release;
  queue.post([busy = release.get_future().share()] { busy.wait(); });
  for (uint64_t state = 2; state <= 6; ++state) {
    ASSERT_EQ(notify_set_state(sender, state), kNotifyStatusOk);
    ASSERT_EQ(notify_post("a"), kNotifyStatusOk);
  }
  ASSERT_TRUE(marker.sync());
  release.set_value();
  queue.sync([] {});
  EXPECT_EQ(inbox.states(), std::vector<uint64_t>{6});

  std::promise<void> releaseAgain;
  queue.post([busy = releaseAgain.get_future().share()] { busy.wait(); });
  ASSERT_EQ(notify_post("a"), kNotifyStatusOk);
  ASSERT_TRUE(marker.sync());
  EXPECT_EQ(notify_cancel(token), kNotifyStatusOk);
  releaseAgain.set_value();
  const size_t otherSeen = other.states().size();
  ASSERT_EQ(notify_post("a"), kNotifyStatusOk);
  ASSERT_TRUE(marker.sync());
  queue.sync([] {});
  EXPECT_EQ(inbox.states().size(), 1u);
  EXPECT_TRUE(other.waitFor(otherSeen + 1));

  uint64_t state = 0;
  EXPECT_EQ(notify_cancel(token), kNotifyStatusInvalidToken);
  EXPECT_EQ(notify_get_state(token, &state), kNotifyStatusInvalidToken);
  EXPECT_EQ(notify_set_state(token, 1), kNotifyStatusInvalidToken);
}

// Fills the watcher's inotify queue while its thread is held inside a handler, so that a later
// post of another name is lost with the overflow; only re-reading every name delivers it.
TEST(Notify, LostInotifyEventsAreRecoveredByRereadingEveryName) {
  long limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  if (limit <= 0 || limit > 200000) GTEST_SKIP() << "inotify queue limit " << limit;
  test::Sandbox sandbox;
  sandbox.install();
  ChildProcess child([limit] {
    for (long i = 0; i < limit + 100; ++i) {
      // Alternating names: the kernel folds an event into an identical previous one.
      if (notify_post(i % 2 == 0 ? "x" : "y") != kNotifyStatusOk) return 1;
    }
    return postWithState("late", 77);
  });
  SerialQueue heldQueue("com.test.held"), lateQueue("com.test.late");
  Inbox held, late;
  int heldToken = 0, lateToken = 0;
  ASSERT_EQ(notify_register_dispatch("held", &heldToken, &heldQueue, held.handler()), 0u);
  ASSERT_EQ(notify_register_dispatch("late", &lateToken, &lateQueue, late.handler()), 0u);
  held.hold(true);
  // The queue is idle, so the handler runs on the watcher thread and holds it.
  ASSERT_EQ(notify_post("held"), kNotifyStatusOk);
  ASSERT_TRUE(held.waitFor(1));
  child.go();
  EXPECT_EQ(child.wait(), 0);
  held.hold(false);
  ASSERT_TRUE(late.waitFor(1));
  EXPECT_EQ(late.states(), std::vector<uint64_t>{77});
}

TEST(Notify, RefusesNamesThatEscapeTheFolderAndGivesNewFilesTheFolderBits) {
  test::Sandbox sandbox;
  sandbox.install();
  SerialQueue queue("com.test.refused");
  const std::string tooLong(kNotifyMaxNameLength + 1, 'n');
  for (const char* name : {"", "a/b", "/abs", ".", "..", tooLong.c_str(), (const char*)nullptr}) {
    int token = 0;
    EXPECT_EQ(notify_register_check(name, &token), kNotifyStatusInvalidName) << name;
    EXPECT_EQ(notify_post(name), kNotifyStatusInvalidName);
    EXPECT_EQ(notify_register_dispatch(name, &token, &queue, [](int) {}), kNotifyStatusInvalidName);
  }
  int token = 0;
  EXPECT_EQ(notify_register_check("ok", nullptr), kNotifyStatusInvalidArgument);
  EXPECT_EQ(notify_register_dispatch("ok", &token, nullptr, [](int) {}),
            kNotifyStatusInvalidArgument);

  // The folder is created on first use; files get its bits minus execute, whatever the umask.
  const mode_t umask = ::umask(077);
  ASSERT_EQ(notify_register_check(std::string(kNotifyMaxNameLength, 'n').c_str(), &token), 0u);
  const std::string dir = folder(sandbox);
  ASSERT_EQ(::chmod(dir.c_str(), 0775), 0);
  ASSERT_EQ(notify_register_check("fresh", &token), kNotifyStatusOk);
  ::umask(umask);
  EXPECT_EQ(fs::status(dir + "/fresh").permissions(), static_cast<fs::perms>(0664));
  uint64_t state = 1;
  EXPECT_EQ(notify_get_state(token, &state), kNotifyStatusOk);
  EXPECT_EQ(state, 0u);
}

TEST(Notify, OnlyWhoMayWriteTheFolderMayPostButOthersMayListen) {
  test::Sandbox sandbox;
  sandbox.install();
  const bool root = ::geteuid() == 0;
  // Forked first: a process that already holds a name's file open keeps it.
  ChildProcess child([root] {
    // Root may write anything, so it drops to an unprivileged user.
    if (root && (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)) {
      return 10;
    }
    int t = 0;
    if (notify_register_check("guarded", &t) != kNotifyStatusNotAuthorized) return 1;
    if (notify_post("guarded") != kNotifyStatusNotAuthorized) return 2;
    if (notify_register_check("fresh", &t) != kNotifyStatusNotAuthorized) return 3;
    reportCumu(1, 1, 1);  // refused silently
    SerialQueue queue("com.test.listener");
    uint64_t state = 0;
    if (notify_register_dispatch("guarded", &t, &queue, [](int) {}) != kNotifyStatusOk) return 4;
    return notify_get_state(t, &state) == kNotifyStatusOk && state == 5 ? 0 : 5;
  });
  int token = 0;
  ASSERT_EQ(notify_register_check("guarded", &token), kNotifyStatusOk);
  ASSERT_EQ(notify_set_state(token, 5), kNotifyStatusOk);
  const std::string dir = folder(sandbox);
  if (root) {
    for (fs::path p = dir; p != fs::path("/"); p = p.parent_path()) {
      fs::permissions(p, fs::perms::others_exec, fs::perm_options::add);
    }
  } else {
    ASSERT_EQ(::chmod(dir.c_str(), 0555), 0);
  }
  child.go();
  EXPECT_EQ(child.wait(), 0);
  EXPECT_FALSE(fs::exists(dir + "/fresh"));
  EXPECT_FALSE(fs::exists(dir + "/" + kReportName));
}

TEST(Report, PacksTypeDataAndEnergyIntoTheStateWord) {
  test::Sandbox sandbox;
  sandbox.install();
  int token = 0;
  ASSERT_EQ(notify_register_check(kReportName, &token), kNotifyStatusOk);
  struct Case {
    int64_t type, data, energy;
    uint64_t state;
  };
  const Case cases[] = {
      {1, 100, 5, 0x0005'0000'0000'0641ULL},
      {1, 0x100000000000LL, 0, 1},  // data bit 44 is lost
      {2, 0, 0x12345, 0x2345'0000'0000'0002ULL},
      {2, -1, 0, 0x0000'FFFF'FFFF'FFF2ULL},
      {1, 0, -1, 0xFFFF'0000'0000'0001ULL},
      {1, -16, -2, 0xFFFE'FFFF'FFFF'FF01ULL},
      {0x13, 7, 3, 0x0003'0000'0000'0073ULL},  // type keeps its low 4 bits
      {-1, 0, 0, 0xF},
  };
  uint64_t state = 0;
  for (const Case& c : cases) {
    reportCumu(c.type, c.data, c.energy);
    ASSERT_EQ(notify_get_state(token, &state), kNotifyStatusOk);
    EXPECT_EQ(state, c.state) << std::hex << c.type << " " << c.data << " " << c.energy;
  }
  reportCumuBackgroundDownload(3, 4);
  ASSERT_EQ(notify_get_state(token, &state), kNotifyStatusOk);
  EXPECT_EQ(state, 0x0004'0000'0000'0031ULL);
  reportCumuNonDiscretionaryBackgroundDownload(3, 4);
  ASSERT_EQ(notify_get_state(token, &state), kNotifyStatusOk);
  EXPECT_EQ(state, 0x0004'0000'0000'0032ULL);
}

// While armed, files open read-only whatever was asked: a state cannot be stored.
class ReadOnlyOpens : public FileSystem {
 public:
  int open(const char* path, int flags, mode_t mode) override {
    if (armed) flags = (flags & ~(O_RDWR | O_WRONLY | O_CREAT | O_EXCL)) | O_RDONLY;
    return FileSystem::open(path, flags, mode);
  }
  std::atomic<bool> armed{false};
};

TEST(Report, AReportWhoseStateCannotBeStoredIsNotPosted) {
  test::Sandbox sandbox;
  auto files = std::make_shared<ReadOnlyOpens>();
  Overrides overrides;
  overrides.fileSystem = files;
  sandbox.install(std::move(overrides));
  // Forked first, so that it opens the report's file itself, read-only.
  ChildProcess child([&files] {
    files->armed = true;
    reportCumuNonDiscretionaryBackgroundDownload(20, 2);
    int sender = 0;
    if (notify_register_check(kReportName, &sender) != kNotifyStatusOk) return 1;
    return notify_set_state(sender, 9) == kNotifyStatusFailed &&
                   notify_post(kReportName) == kNotifyStatusFailed
               ? 0
               : 2;
  });
  SerialQueue queue("com.test.collector");
  Inbox inbox;
  Marker marker;
  int token = 0;
  ASSERT_EQ(notify_register_dispatch(kReportName, &token, &queue, inbox.handler()), 0u);
  reportCumuBackgroundDownload(10, 1);
  ASSERT_TRUE(inbox.waitFor(1));
  EXPECT_EQ(inbox.states(), std::vector<uint64_t>{0x0001'0000'0000'00A1ULL});

  child.go();
  EXPECT_EQ(child.wait(), 0);
  ASSERT_TRUE(marker.sync());
  queue.sync([] {});
  EXPECT_EQ(inbox.states().size(), 1u);
}

}  // namespace
}  // namespace kelo::platform
