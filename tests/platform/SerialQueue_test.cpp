#include "platform/SerialQueue.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/Singleton.h"

namespace kelo::platform {
namespace {

TEST(SerialQueueTest, KeepsEachPosterOrderAndNeverOverlapsTasks) {
  constexpr int kThreads = 4, kPerThread = 5000;
  SerialQueue queue("test.fifo");
  std::vector<std::vector<int>> seen(kThreads);  // touched only by queue tasks
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        auto task = [&, t, i] {
          if (inside.fetch_add(1) != 0) overlapped = true;
          seen[t].push_back(i);
          std::this_thread::yield();
          inside.fetch_sub(1);
        };
        if ((i + t) % 3 == 0) {
          queue.sync(task);
        } else {
          queue.post(task);
        }
      }
    });
  }
  for (auto& p : posters) p.join();
  queue.sync([] {});
  EXPECT_FALSE(overlapped.load());
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(seen[t].size(), static_cast<size_t>(kPerThread));
    for (int i = 0; i < kPerThread; ++i) ASSERT_EQ(seen[t][i], i) << "thread " << t;
  }
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

// Also when the worker was asleep: the posts wake it as the queue goes away.
TEST(SerialQueueTest, DestroyingAQueueRunsEveryTaskPostedBeforehand) {
  std::atomic<int> ran{0};
  for (int round = 0; round < 20; ++round) {
    SerialQueue queue("test.drain");
    queue.post([] {});
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    for (int i = 0; i < 10; ++i) queue.post([&ran] { ran.fetch_add(1); });
  }
  EXPECT_EQ(ran.load(), 200);
}

TEST(SerialQueueTest, PostsBeyondTheRingWaitTheirTurnEvenFromTheQueuesOwnTask) {
  static constexpr int kPosts = 3 * static_cast<int>(SerialQueue::kRingSize) + 7;
  SerialQueue queue("test.overflow");
  std::vector<int> order;  // queue only
  std::atomic<int> posted{0};
  std::atomic<bool> selfPosted{false};
  queue.post([&] {
    // Holds the worker until the ring is full and spilling, then posts to its own queue: that
    // post must neither block nor overtake the ones already waiting.
    while (posted.load() < kPosts) std::this_thread::yield();
    queue.post([&] { order.push_back(-1); });
    selfPosted = true;
  });
  std::thread second([&] {
    for (int i = 0; i < kPosts / 2; ++i) {
      queue.post([&order, i] { order.push_back(kPosts + i); });
      posted.fetch_add(1);
    }
  });
  for (int i = 0; i < kPosts - kPosts / 2; ++i) {
    queue.post([&order, i] { order.push_back(i); });
    posted.fetch_add(1);
  }
  second.join();
  while (!selfPosted.load()) std::this_thread::yield();
  queue.sync([] {});
  ASSERT_EQ(order.size(), static_cast<size_t>(kPosts + 1));
  EXPECT_EQ(order.back(), -1);
  int mine = 0, theirs = kPosts;
  for (size_t i = 0; i + 1 < order.size(); ++i) {
    if (order[i] < kPosts) {
      ASSERT_EQ(order[i], mine++);
    } else {
      ASSERT_EQ(order[i], theirs++);
    }
  }
}

TEST(SerialQueueTest, IdleSyncAndRunOrPostRunInlineAndPostsMadeThereStillRun) {
  SerialQueue queue("test.inline"), other("test.other");
  std::thread::id ranOn;
  bool current = false;
  std::atomic<int> ran{0};
  queue.sync([&] {
    ranOn = std::this_thread::get_id();
    current = queue.isCurrent();
    other.sync([&] { ran += 100; });  // an inline sync on another queue nests
    // The caller owns the queue now; these wait until it lets go, then the worker takes them.
    for (int i = 0; i < 10; ++i) queue.post([&] { ran.fetch_add(1); });
  });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(current);
  EXPECT_FALSE(queue.isCurrent());
  queue.sync([] {});
  EXPECT_EQ(ran.load(), 110);

  queue.runOrPost([&] { ranOn = std::this_thread::get_id(); });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  std::vector<int> order;
  queue.sync([&] {
    queue.runOrPost([&] { order.push_back(2); });  // busy from its own task: waits its turn
    order.push_back(1);
  });
  std::array<int, 64> big{};  // a closure too large to store inline
  big[63] = 3;
  queue.post([big, &order] { order.push_back(big[63]); });
  queue.sync([] {});
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(SerialQueueTest, ATaskThrowingOnTheCallersThreadLetsGoOfTheQueue) {
  SerialQueue queue("test.throw");
  EXPECT_THROW(queue.sync([] { throw std::runtime_error("task failed"); }), std::runtime_error);
  std::atomic<bool> ran{false};
  queue.post([&] { ran = true; });
  queue.sync([] {});
  EXPECT_TRUE(ran.load());
}

TEST(SerialQueueDeathTest, SyncFromItsOwnTaskDiesNamingTheLabel) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        SerialQueue queue("com.example.selfwait");
        queue.sync([&] { queue.sync([] {}); });
      },
      "com\\.example\\.selfwait");
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
  EXPECT_DEATH(
      {
        SerialQueue a("queue.a");
        SerialQueue b("queue.b");
        a.sync([&] { b.sync([&] { a.sync([] {}); }); });
      },
      "queue\\.a");
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
