// Serial queue costs beside their limit and the naive design, in one run:
//   post                       vs  a mutex-guarded std::deque push (the peer), on an idle
//                                  machine, beside one busy competing process, and from 2 threads
//   post-and-wait, idle queue  vs  a std::mutex lock/unlock pair around a direct call (the limit)
//                              and a mutex + condition-variable handoff to a worker (naive design)
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/SerialQueue.h"

namespace {

using kelo::platform::SerialQueue;

int gSink = 0;
void noop() { benchmark::DoNotOptimize(gSink); }

void BM_QueuePost(benchmark::State& state) {
  SerialQueue queue("bench.post");
  int counter = 0;
  for (auto _ : state) queue.post([&counter] { ++counter; });
  queue.sync([] {});
  benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_QueuePost);

// The peer: the same closure pushed into a std::deque under a std::mutex. Cleared every 4096
// pushes so memory stays flat, as a consumer would.
void BM_MutexDequePush(benchmark::State& state) {
  std::mutex mutex;
  std::deque<std::function<void()>> deque;
  int counter = 0;
  for (auto _ : state) {
    std::lock_guard<std::mutex> lock(mutex);
    deque.push_back([&counter] { ++counter; });
    if (deque.size() == 4096) deque.clear();
  }
  benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_MutexDequePush);

// A process that keeps one processor busy for as long as it lives, as a competing build would.
class BusyProcess {
 public:
  BusyProcess() : pid_(::fork()) {
    if (pid_ == 0) {
      for (;;) asm volatile("" ::: "memory");
    }
  }
  ~BusyProcess() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  BusyProcess(const BusyProcess&) = delete;
  BusyProcess& operator=(const BusyProcess&) = delete;

 private:
  pid_t pid_;
};

void BM_QueuePostBusy(benchmark::State& state) {
  const BusyProcess busy;
  BM_QueuePost(state);
}
BENCHMARK(BM_QueuePostBusy);

void BM_MutexDequePushBusy(benchmark::State& state) {
  const BusyProcess busy;
  BM_MutexDequePush(state);
}
BENCHMARK(BM_MutexDequePushBusy);

// Two threads posting to one queue, and pushing into one mutex-guarded deque.
SerialQueue* gSharedQueue = nullptr;
std::mutex gSharedMutex;
std::deque<std::function<void()>> gSharedDeque;
std::atomic<int> gSharedCounter{0};

void BM_QueuePostTwoThreads(benchmark::State& state) {
  if (state.thread_index() == 0) gSharedQueue = new SerialQueue("bench.post2");
  for (auto _ : state)
    gSharedQueue->post([] { gSharedCounter.fetch_add(1, std::memory_order_relaxed); });
  if (state.thread_index() == 0) {
    delete gSharedQueue;  // runs what is left
    gSharedQueue = nullptr;
  }
}
BENCHMARK(BM_QueuePostTwoThreads)->Threads(2)->UseRealTime();

void BM_MutexDequePushTwoThreads(benchmark::State& state) {
  for (auto _ : state) {
    std::lock_guard<std::mutex> lock(gSharedMutex);
    gSharedDeque.push_back([] { gSharedCounter.fetch_add(1, std::memory_order_relaxed); });
    if (gSharedDeque.size() == 4096) gSharedDeque.clear();
  }
}
BENCHMARK(BM_MutexDequePushTwoThreads)->Threads(2)->UseRealTime();

// The peer with a consumer thread draining it, as a queue would have.
void BM_MutexDequePushWithConsumer(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<std::function<void()>> deque;
  bool stop = false;
  int counter = 0;
  std::thread consumer([&] {
    std::deque<std::function<void()>> batch;
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      cv.wait(lock, [&] { return stop || !deque.empty(); });
      if (deque.empty() && stop) return;
      batch.swap(deque);
      lock.unlock();
      for (auto& f : batch) f();
      batch.clear();
      lock.lock();
    }
  });
  for (auto _ : state) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      deque.push_back([&counter] { ++counter; });
    }
    cv.notify_one();
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
  }
  cv.notify_one();
  consumer.join();
  benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_MutexDequePushWithConsumer);

void BM_QueueSyncIdle(benchmark::State& state) {
  SerialQueue queue("bench.sync");
  for (auto _ : state) queue.sync(noop);
}
BENCHMARK(BM_QueueSyncIdle);

// The limit: what any serialisation must at least do on an idle queue.
void BM_MutexPairDirectCall(benchmark::State& state) {
  std::mutex mutex;
  for (auto _ : state) {
    std::lock_guard<std::mutex> lock(mutex);
    noop();
  }
}
BENCHMARK(BM_MutexPairDirectCall);

// The naive design: every task handed to a worker thread and waited for.
void BM_CondvarHandoff(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable cv;
  std::function<void()> task;
  bool done = false;
  bool stop = false;
  std::thread worker([&] {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      cv.wait(lock, [&] { return stop || task != nullptr; });
      if (stop) return;
      task();
      task = nullptr;
      done = true;
      cv.notify_all();
    }
  });
  for (auto _ : state) {
    std::unique_lock<std::mutex> lock(mutex);
    task = noop;
    done = false;
    cv.notify_all();
    cv.wait(lock, [&] { return done; });
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
  }
  cv.notify_all();
  worker.join();
}
BENCHMARK(BM_CondvarHandoff);

}  // namespace

BENCHMARK_MAIN();
