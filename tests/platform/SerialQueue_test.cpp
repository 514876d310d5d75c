#include "platform/SerialQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/Singleton.h"

namespace kelo::platform {
namespace {

TEST(SerialQueueTest, KeepsEachPosterOrderAcrossFourThreads) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 5000;
  SerialQueue queue("test.fifo");
  std::vector<std::vector<int>> seen(kThreads);  // touched only by queue tasks
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) queue.post([&seen, t, i] { seen[t].push_back(i); });
    });
  }
  for (auto& p : posters) p.join();
  queue.sync([] {});
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(seen[t].size(), static_cast<size_t>(kPerThread));
    for (int i = 0; i < kPerThread; ++i) ASSERT_EQ(seen[t][i], i) << "thread " << t;
  }
}

TEST(SerialQueueTest, TasksNeverOverlap) {
  SerialQueue queue("test.exclusive");
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  auto body = [&] {
    if (inside.fetch_add(1) != 0) overlapped = true;
    std::this_thread::yield();
    inside.fetch_sub(1);
  };
  std::vector<std::thread> callers;
  for (int t = 0; t < 4; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        if ((i + t) % 3 == 0) queue.sync(body);
        else queue.post(body);
      }
    });
  }
  for (auto& c : callers) c.join();
  queue.sync([] {});
  EXPECT_FALSE(overlapped.load());
}

TEST(SerialQueueTest, SyncSeesEveryEarlierPostDone) {
  SerialQueue queue("test.sync");
  int counter = 0;  // queue only
  for (int round = 0; round < 200; ++round) {
    for (int i = 0; i < 50; ++i) {
      queue.post([&counter] {
        std::this_thread::sleep_for(std::chrono::microseconds(1));
        ++counter;
      });
    }
    int seen = -1;
    queue.sync([&] { seen = counter; });
    ASSERT_EQ(seen, (round + 1) * 50);
  }
}

TEST(SerialQueueTest, IdleSyncRunsOnTheCallingThread) {
  SerialQueue queue("test.inline");
  std::thread::id ranOn;
  bool current = false;
  queue.sync([&] {
    ranOn = std::this_thread::get_id();
    current = queue.isCurrent();
  });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(current);
  EXPECT_FALSE(queue.isCurrent());
}

TEST(SerialQueueTest, BusySyncWaitsItsTurnOnTheWorker) {
  SerialQueue queue("test.busy");
  std::atomic<bool> release{false};
  queue.post([&] {
    while (!release.load()) std::this_thread::yield();
  });
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release = true;
  });
  std::thread::id ranOn;
  queue.sync([&] { ranOn = std::this_thread::get_id(); });
  releaser.join();
  EXPECT_NE(ranOn, std::this_thread::get_id());
}

TEST(SerialQueueTest, PostsMadeDuringAnInlineTaskStillRun) {
  SerialQueue queue("test.handoff");
  std::atomic<int> ran{0};
  queue.sync([&] {
    // The caller owns the queue now; these wait until it lets go, then the worker takes them.
    for (int i = 0; i < 10; ++i) queue.post([&] { ran.fetch_add(1); });
  });
  queue.sync([] {});
  EXPECT_EQ(ran.load(), 10);
}

TEST(SerialQueueTest, RunOrPostIsInlineWhenIdleAndQueuedWhenBusy) {
  SerialQueue queue("test.runorpost");
  std::thread::id ranOn;
  queue.runOrPost([&] { ranOn = std::this_thread::get_id(); });
  EXPECT_EQ(ranOn, std::this_thread::get_id());

  std::vector<int> order;
  queue.sync([&] {
    // From its own task the queue is busy: the task must wait its turn, not nest.
    queue.runOrPost([&] { order.push_back(2); });
    order.push_back(1);
  });
  queue.sync([] {});
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(SerialQueueTest, NestedInlineSyncOnAnotherQueueIsAllowed) {
  SerialQueue outer("test.outer");
  SerialQueue inner("test.inner");
  int value = 0;
  outer.sync([&] { inner.sync([&] { value = 42; }); });
  EXPECT_EQ(value, 42);
}

TEST(SerialQueueDeathTest, SyncFromItsOwnTaskDiesNamingTheLabel) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        SerialQueue queue("com.example.selfwait");
        queue.sync([&] { queue.sync([] {}); });
      },
      "com\\.example\\.selfwait");
}

TEST(SerialQueueDeathTest, SyncFromItsOwnWorkerTaskDies) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto* queue = new SerialQueue("com.example.worker");
        std::atomic<bool> hold{true};
        queue->post([&] {
          while (hold.load()) std::this_thread::yield();
        });
        queue->post([queue] { queue->sync([] {}); });
        hold = false;
        std::this_thread::sleep_for(std::chrono::seconds(5));
      },
      "com\\.example\\.worker");
}

TEST(SerialQueueDeathTest, ThroughAnotherQueueStillDies) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        SerialQueue a("queue.a");
        SerialQueue b("queue.b");
        a.sync([&] { b.sync([&] { a.sync([] {}); }); });
      },
      "queue\\.a");
}

TEST(SerialQueueTest, LargeClosuresAreKept) {
  SerialQueue queue("test.large");
  std::array<int, 64> big{};
  big[63] = 7;
  int seen = 0;
  queue.post([big, &seen] { seen = big[63]; });
  queue.sync([] {});
  EXPECT_EQ(seen, 7);
}

TEST(SingletonTest, CreatesExactlyOnceUnderConcurrentFirstCalls) {
  static Singleton<int> singleton;
  std::atomic<int> made{0};
  std::vector<std::thread> threads;
  std::vector<int*> got(8);
  EXPECT_EQ(singleton.peek(), nullptr);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      got[t] = singleton.get([&] {
        made.fetch_add(1);
        return new int(5);
      });
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(made.load(), 1);
  for (int* p : got) EXPECT_EQ(p, got[0]);
  EXPECT_EQ(singleton.peek(), got[0]);
}

}  // namespace
}  // namespace kelo::platform
