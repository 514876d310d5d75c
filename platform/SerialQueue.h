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
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
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
    // On an idle queue the task runs right here, in the caller's own frame: a task that ends in
    // a system call (a log line's write) then returns through as few frames as possible.
    if (Frame frame{this, nullptr}; claimIdle(frame)) {
      const Claim claim{this, &frame};
      f();
      return;
    }
    auto call = [&f] { f(); };
    using Call = decltype(call);
    syncImpl([](void* c) { (*static_cast<Call*>(c))(); }, static_cast<void*>(&call));
  }

  // Runs the task at once on the caller's thread if the queue is idle, else posts it. Either
  // way it runs serialised with the queue's other tasks.
  void runOrPost(Task task);

  // True on a thread that is running one of this queue's tasks.
  bool isCurrent() const;

  // Tasks the ring holds before posts spill into the overflow list.
  static constexpr uint64_t kRingSize = 256;

 private:
  // One posted task and the position it was published for (position + 1; 0: never used). One
  // cache line, so that neighbouring posts never share a line.
  struct alignas(64) Slot {
    Task task;
    std::atomic<uint64_t> published{0};
  };
  static_assert(sizeof(Slot) == 64, "a slot fills exactly one cache line");

  // One entry of the chain of queues whose tasks the current thread is running (innermost
  // first): inline execution nests, a task of one queue running another queue's task inline.
  struct Frame {
    const SerialQueue* queue;
    const Frame* outer;
  };
  // Makes the calling thread the queue's runner if the queue is idle, and `frame` its innermost
  // frame; false (and nothing changed) otherwise.
  bool claimIdle(Frame& frame);
  // Undoes claimIdle, however the task ended, and hands posts made meanwhile to the worker.
  void releaseClaim(const Frame& frame);
  struct Claim {
    SerialQueue* queue;
    const Frame* frame;
    ~Claim() { queue->releaseClaim(*frame); }
  };

  // The innermost frame of the calling thread.
  static thread_local const Frame* current_;

  void syncImpl(void (*fn)(void*), void* context);
  bool pushToOverflow(Task& task);
  void wakeWorker();
  bool hasWork(uint64_t head) const;
  bool waitForWork();
  void waitForRelease();
  void drain();
  void takeOverflow(std::vector<Task>& into);
  void workerLoop();
  [[noreturn]] void abortSelfWait() const;

  const std::string label_;
  const std::unique_ptr<Slot[]> ring_;

  // Posters' line. tail_ counts the positions claimed so far; kOverflowBit set means the ring was
  // full and posts go to overflow_ until the worker has run it. knownHead_ is a poster's last
  // reading of head_, so that posters read the worker's line only once per lap of the ring.
  static constexpr uint64_t kOverflowBit = uint64_t{1} << 63;
  alignas(64) std::atomic<uint64_t> tail_{0};
  std::atomic<uint64_t> knownHead_{0};

  // Consumer's line: who may run tasks (the worker, or a caller running one inline on an idle
  // queue) and the next position to run. Only the worker advances head_.
  alignas(64) std::atomic<uint32_t> running_{0};
  std::atomic<uint64_t> head_{0};

  // Read by every post, written only when the worker falls asleep or wakes. sleeping_ starts
  // true, so that the first post starts the worker.
  alignas(64) std::atomic<bool> sleeping_{true};
  std::atomic<bool> awaitingRelease_{false};  // asleep until an inline caller lets go
  std::atomic<bool> stopping_{false};

  alignas(64) std::atomic<uint32_t> wake_{0};  // 1 when the worker has been handed something
  std::atomic<bool> spillPending_{false};      // set with kOverflowBit, cleared with it

  alignas(64) std::mutex overflowMutex_;
  std::vector<Task> overflow_;  // guarded by overflowMutex_
  std::vector<Task> spilled_;   // the worker's: the overflow list it took and is running

  std::once_flag workerStarted_;
  std::thread worker_;
};

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_SERIALQUEUE_H_
