// A serial work queue with a label: tasks run one at a time, in posting order.
//
// post() returns at once. sync() (post-and-wait) returns after its task ran, and so after every
// task posted before it; on an idle queue it runs the task on the caller's own thread, without a
// thread hop. The queue's worker thread starts on first need and sleeps while there is no work.
//
// sync() from a task of the same queue (directly, or nested through other queues' inline tasks)
// would wait for itself: it aborts the process with a message naming the queue's label.
//
// Thread-safe. The destructor runs what was posted, then stops the worker; it must not be called
// from the queue's own task.
#ifndef KELO_PLATFORM_SERIALQUEUE_H_
#define KELO_PLATFORM_SERIALQUEUE_H_

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Task.h"

namespace kelo::platform {

class SerialQueue {
 public:
  explicit SerialQueue(std::string label);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const { return label_; }

  void post(Task task);

  template <class F>
  void sync(F&& f) {
    auto call = [&f] { f(); };
    using Call = decltype(call);
    syncImpl([](void* c) { (*static_cast<Call*>(c))(); }, static_cast<void*>(&call));
  }

  // Runs the task at once on the caller's thread if the queue is idle, else posts it. Either
  // way it runs serialised with the queue's other tasks.
  void runOrPost(Task task);

  // True on a thread that is running one of this queue's tasks.
  bool isCurrent() const;

 private:
  void syncImpl(void (*fn)(void*), void* context);
  bool tryClaimIdle();
  void releaseClaim();
  void wakeWorker();
  void waitForWork();
  void workerLoop();
  [[noreturn]] void abortSelfWait() const;

  const std::string label_;

  // Posters' side: the lock, the tasks it guards and the count live together, so a burst of
  // posts keeps them in the poster's cache while the worker polls its own line below.
  alignas(64) std::mutex mutex_;
  std::vector<Task> pending_;  // guarded by mutex_

  // Tasks posted and not yet finished, plus one while a caller runs a task inline. Zero means
  // idle: nothing queued, nothing running. Incremented under mutex_ together with the push, so
  // the worker only ever takes away tasks that were counted.
  std::atomic<uint64_t> outstanding_{0};

  // Worker's side: written by posters only when the queue goes from idle to busy.
  alignas(64) std::atomic<uint32_t> wake_{0};  // 1 when the worker has been handed work
  std::atomic<bool> sleeping_{false};
  std::atomic<bool> stopping_{false};

  alignas(64) std::once_flag workerStarted_;
  std::thread worker_;
};

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_SERIALQUEUE_H_
