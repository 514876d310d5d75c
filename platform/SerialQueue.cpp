#include "platform/SerialQueue.h"

#include <cstdio>
#include <cstdlib>

namespace kelo::platform {

namespace {

// The queues whose tasks the current thread is running, innermost first. Inline execution can
// nest (a task of one queue running another queue's task inline), hence a chain.
struct Frame {
  const SerialQueue* queue;
  const Frame* outer;
};
thread_local const Frame* tCurrentFrame = nullptr;

class FrameScope {
 public:
  explicit FrameScope(const SerialQueue* q) : frame_{q, tCurrentFrame} { tCurrentFrame = &frame_; }
  ~FrameScope() { tCurrentFrame = frame_.outer; }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;

 private:
  Frame frame_;
};

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// How long an idle worker keeps polling before it sleeps: a burst of posts then finds it awake
// and pays no wake-up system call. It polls every few pauses so that it does not pull the
// posters' cache line away from them on every post.
constexpr int kIdlePolls = 2000;
constexpr int kPausesPerPoll = 8;

// A worker that just ran only a handful of tasks while more keep arriving lets them gather for
// a moment before it takes the lock again: it bounds the cache-line ping-pong with a poster in a
// tight loop to once per batch, at the cost of well under a microsecond of latency.
constexpr size_t kSmallBatch = 8;
constexpr int kGatherPauses = 32;

void pause(int n) {
  for (int i = 0; i < n; ++i) cpuRelax();
}

}  // namespace

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)) {}

SerialQueue::~SerialQueue() {
  sync([] {});
  // Another thread that just finished an inline task may still be assigning worker_ inside
  // call_once, even though the worker it started already ran our sync task; a passive call_once
  // waits for that assignment and makes it visible.
  std::call_once(workerStarted_, [] {});
  if (worker_.joinable()) {
    stopping_.store(true, std::memory_order_seq_cst);
    wake_.store(1, std::memory_order_seq_cst);
    wake_.notify_one();
    worker_.join();
  }
}

bool SerialQueue::isCurrent() const {
  for (const Frame* f = tCurrentFrame; f != nullptr; f = f->outer) {
    if (f->queue == this) return true;
  }
  return false;
}

void SerialQueue::post(Task task) {
  uint64_t before;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.push_back(std::move(task));
    before = outstanding_.fetch_add(1, std::memory_order_acq_rel);
  }
  if (before == 0) wakeWorker();
}

bool SerialQueue::tryClaimIdle() {
  uint64_t expected = 0;
  return outstanding_.compare_exchange_strong(expected, 1, std::memory_order_acquire,
                                              std::memory_order_relaxed);
}

void SerialQueue::releaseClaim() {
  // Tasks posted while the caller ran inline were counted but nobody was woken for them.
  if (outstanding_.fetch_sub(1, std::memory_order_acq_rel) != 1) wakeWorker();
}

void SerialQueue::runOrPost(Task task) {
  if (tryClaimIdle()) {
    {
      FrameScope scope(this);
      task();
    }
    releaseClaim();
    return;
  }
  post(std::move(task));
}

void SerialQueue::syncImpl(void (*fn)(void*), void* context) {
  if (isCurrent()) abortSelfWait();
  if (tryClaimIdle()) {
    {
      FrameScope scope(this);
      fn(context);
    }
    releaseClaim();
    return;
  }
  std::atomic<uint32_t> done{0};
  post([fn, context, &done] {
    fn(context);
    done.store(1, std::memory_order_release);
    done.notify_one();
  });
  while (done.load(std::memory_order_acquire) == 0) done.wait(0, std::memory_order_acquire);
}

void SerialQueue::abortSelfWait() const {
  std::fprintf(stderr,
               "kelo: post-and-wait on queue \"%s\" from one of its own tasks would wait for "
               "itself forever; aborting\n",
               label_.c_str());
  std::abort();
}

void SerialQueue::wakeWorker() {
  std::call_once(workerStarted_, [this] { worker_ = std::thread([this] { workerLoop(); }); });
  wake_.store(1, std::memory_order_seq_cst);
  if (sleeping_.load(std::memory_order_seq_cst)) wake_.notify_one();
}

void SerialQueue::waitForWork() {
  for (int i = 0; i < kIdlePolls; ++i) {
    // An acquire load (not a relaxed one and a fence): the waker may be a caller that just ran a
    // task inline, and its writes must be visible to the tasks this worker runs next.
    if (wake_.load(std::memory_order_acquire) != 0) {
      wake_.store(0, std::memory_order_relaxed);
      return;
    }
    pause(kPausesPerPoll);
  }
  sleeping_.store(true, std::memory_order_seq_cst);
  while (wake_.load(std::memory_order_seq_cst) == 0) wake_.wait(0, std::memory_order_seq_cst);
  sleeping_.store(false, std::memory_order_relaxed);
  wake_.store(0, std::memory_order_relaxed);
}

void SerialQueue::workerLoop() {
  std::vector<Task> batch;
  for (;;) {
    waitForWork();
    if (stopping_.load(std::memory_order_acquire)) return;
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        batch.swap(pending_);
      }
      {
        FrameScope scope(this);
        for (Task& task : batch) {
          task();
          task.reset();
        }
      }
      const uint64_t ran = batch.size();
      batch.clear();
      if (outstanding_.fetch_sub(ran, std::memory_order_acq_rel) == ran) break;
      if (ran < kSmallBatch) pause(kGatherPauses);
    }
  }
}

}  // namespace kelo::platform
