#include "platform/SerialQueue.h"

#include <cstdio>
#include <cstdlib>

namespace kelo::platform {

// How it works. Posters claim positions in a ring of task slots by advancing tail_, write the
// task into the slot and publish it by storing its position there. The worker runs the slots in
// position order, polling the next slot rather than tail_, so that a steady stream of posts
// keeps tail_ in the posters' cache: a post costs one uncontended compare-and-swap and a few
// stores. When the ring is full, posts go to an overflow list until the worker has caught up.
//
// running_ says who may run tasks: the worker while it drains, or a caller that found the queue
// idle (running_ free and nothing claimed) and runs its task inline. Posters never look at it;
// they wake the worker only when it sleeps.

namespace {

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

void pause(int n) {
  for (int i = 0; i < n; ++i) cpuRelax();
}

// An idle worker polls its next slot for a while (some tens of microseconds) before it sleeps:
// a burst of posts then finds it awake and pays no wake-up system call. Between polls it yields
// the processor, so that on a machine with more runnable threads than processors its polling
// never holds up a poster (or anything else) waiting for one; on an idle machine a yield
// returns at once.
constexpr int kIdlePolls = 128;
constexpr int kPollsPerFlagCheck = 4;

// How long a worker waits for a caller running a task inline before it sleeps, in polls of
// kPausesPerPoll pauses (some tens of microseconds).
constexpr int kReleasePolls = 1000;
constexpr int kPausesPerPoll = 2;

// How many slots ahead a poster asks for the line it will write.
constexpr uint64_t kPrefetchAhead = 8;

// How long the worker lets posts gather after it caught up, in pauses (about 30 ns each here).
constexpr int kGatherPauses = 16;

// How long a caller waits for a worker finishing its last task, in pauses (some microseconds).
constexpr int kClaimSpins = 256;

// How long a post-and-wait on a busy queue polls for its task before it sleeps, in pauses.
constexpr int kWaitSpins = 512;

// A slot claimed but not yet published: its poster was interrupted between the two steps.
constexpr int kSpinsBeforeYield = 64;

}  // namespace

thread_local const SerialQueue::Frame* SerialQueue::current_ = nullptr;

SerialQueue::SerialQueue(std::string label)
    : label_(std::move(label)), ring_(std::make_unique<Slot[]>(kRingSize)) {}

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
  for (const Frame* f = current_; f != nullptr; f = f->outer) {
    if (f->queue == this) return true;
  }
  return false;
}

void SerialQueue::post(Task task) {
  uint64_t tail = tail_.load(std::memory_order_relaxed);
  for (;;) {
    if ((tail & kOverflowBit) != 0) {
      if (pushToOverflow(task)) break;
      tail = tail_.load(std::memory_order_relaxed);
      continue;
    }
    if (tail - knownHead_.load(std::memory_order_acquire) >= kRingSize) {
      const uint64_t head = head_.load(std::memory_order_acquire);
      knownHead_.store(head, std::memory_order_release);
      if (tail - head >= kRingSize) {
        // Full (or tail is stale and the exchange fails): later posts queue behind the ring.
        if (tail_.compare_exchange_weak(tail, tail | kOverflowBit, std::memory_order_seq_cst,
                                        std::memory_order_relaxed)) {
          tail |= kOverflowBit;
          spillPending_.store(true, std::memory_order_release);
        }
        continue;
      }
    }
    if (tail_.compare_exchange_weak(tail, tail + 1, std::memory_order_seq_cst,
                                    std::memory_order_relaxed)) {
      Slot& slot = ring_[tail % kRingSize];
      // Ask for a slot a few posts ahead now, so its line is ours before we write it.
      __builtin_prefetch(&ring_[(tail + kPrefetchAhead) % kRingSize], 1);
      slot.task = std::move(task);
      slot.published.store(tail + 1, std::memory_order_release);
      break;
    }
  }
  // Pairs with the worker's store of sleeping_ before its last look at tail_.
  if (sleeping_.load(std::memory_order_seq_cst)) wakeWorker();
}

bool SerialQueue::pushToOverflow(Task& task) {
  std::lock_guard<std::mutex> lock(overflowMutex_);
  // The worker clears the bit under this lock once it has taken the list.
  if ((tail_.load(std::memory_order_relaxed) & kOverflowBit) == 0) return false;
  overflow_.push_back(std::move(task));
  return true;
}

bool SerialQueue::hasWork(uint64_t head) const {
  return tail_.load(std::memory_order_seq_cst) != head;
}

bool SerialQueue::claimIdle(Frame& frame) {
  for (int spins = 0;; ++spins) {
    uint32_t expected = 0;
    if (running_.compare_exchange_strong(expected, 1, std::memory_order_seq_cst,
                                         std::memory_order_relaxed)) {
      break;
    }
    // Held with nothing queued: most likely the worker finishing the last task (the one that
    // just told this caller it ran), which lets go within moments. A queue in that state is idle
    // to its callers, so wait for it a little rather than hand the task over.
    if (spins == kClaimSpins || hasWork(head_.load(std::memory_order_relaxed))) return false;
    cpuRelax();
  }
  // Idle only if nothing is queued either: posts made before this call run first.
  if (hasWork(head_.load(std::memory_order_relaxed))) {
    running_.store(0, std::memory_order_seq_cst);
    wakeWorker();  // it may have found the queue held and be waiting for us
    return false;
  }
  frame.outer = current_;
  current_ = &frame;
  return true;
}

void SerialQueue::releaseClaim(const Frame& frame) {
  current_ = frame.outer;
  running_.store(0, std::memory_order_seq_cst);
  // Posts that arrived meanwhile went unnoticed by a worker that could not take over from us.
  if (hasWork(head_.load(std::memory_order_relaxed))) wakeWorker();
}

void SerialQueue::runOrPost(Task task) {
  if (Frame frame{this, nullptr}; claimIdle(frame)) {
    const Claim claim{this, &frame};
    task();
    return;
  }
  post(std::move(task));
}

void SerialQueue::syncImpl(void (*fn)(void*), void* context) {
  if (isCurrent()) abortSelfWait();
  if (Frame frame{this, nullptr}; claimIdle(frame)) {  // it may have gone idle meanwhile
    const Claim claim{this, &frame};
    fn(context);
    return;
  }
  // 0: pending, 1: ran, 2: the caller sleeps. The worker makes the wake-up system call only
  // for a sleeping caller, so that after a short task it lets go of the queue at once, and the
  // caller's next post-and-wait finds it idle.
  std::atomic<uint32_t> done{0};
  post([fn, context, &done] {
    fn(context);
    if (done.exchange(1, std::memory_order_acq_rel) == 2) done.notify_one();
  });
  for (int spins = 0; spins < kWaitSpins; ++spins) {
    if (done.load(std::memory_order_acquire) == 1) return;
    cpuRelax();
  }
  uint32_t expected = 0;
  if (!done.compare_exchange_strong(expected, 2, std::memory_order_acq_rel,
                                    std::memory_order_acquire)) {
    return;  // it ran meanwhile
  }
  while (done.load(std::memory_order_acquire) != 1) done.wait(2, std::memory_order_acquire);
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
  // Only the first waker makes the system call; the worker clears the flag once awake. Later
  // wakers only read the flag, so a stream of posts to a sleeping worker shares its line.
  if (wake_.load(std::memory_order_seq_cst) == 0 &&
      wake_.exchange(1, std::memory_order_seq_cst) == 0 &&
      (sleeping_.load(std::memory_order_seq_cst) ||
       awaitingRelease_.load(std::memory_order_seq_cst))) {
    wake_.notify_one();
  }
}

bool SerialQueue::waitForWork() {
  const uint64_t head = head_.load(std::memory_order_relaxed);
  const Slot& next = ring_[head % kRingSize];
  for (int i = 1; i <= kIdlePolls; ++i) {
    if (next.published.load(std::memory_order_acquire) == head + 1) return true;
    if (i % kPollsPerFlagCheck == 0) {
      if (spillPending_.load(std::memory_order_acquire)) return true;
      if (wake_.load(std::memory_order_acquire) != 0) break;
    }
    std::this_thread::yield();
  }
  if (wake_.load(std::memory_order_acquire) == 0) {
    sleeping_.store(true, std::memory_order_seq_cst);
    while (!hasWork(head) && wake_.load(std::memory_order_seq_cst) == 0) {
      wake_.wait(0, std::memory_order_seq_cst);
    }
    sleeping_.store(false, std::memory_order_relaxed);
  }
  // Acquire: the waker may be a caller that just ran a task inline, and its writes must be
  // visible to the tasks this worker runs next.
  wake_.exchange(0, std::memory_order_acq_rel);
  return !stopping_.load(std::memory_order_acquire);
}

void SerialQueue::waitForRelease() {
  // A caller is running a task inline; it wakes the worker when it lets go with work left.
  for (int i = 0; i < kReleasePolls; ++i) {
    if (running_.load(std::memory_order_acquire) == 0) return;
    pause(kPausesPerPoll);
  }
  awaitingRelease_.store(true, std::memory_order_seq_cst);
  while (running_.load(std::memory_order_seq_cst) != 0 &&
         wake_.load(std::memory_order_seq_cst) == 0) {
    wake_.wait(0, std::memory_order_seq_cst);
  }
  awaitingRelease_.store(false, std::memory_order_relaxed);
}

void SerialQueue::takeOverflow(std::vector<Task>& into) {
  std::lock_guard<std::mutex> lock(overflowMutex_);
  into.swap(overflow_);
  spillPending_.store(false, std::memory_order_relaxed);
  tail_.fetch_and(~kOverflowBit, std::memory_order_seq_cst);
}

void SerialQueue::drain() {
  uint64_t head = head_.load(std::memory_order_relaxed);
  // One look at the posters' line per batch: the worker runs what was claimed before it looked
  // and then hands the queue back, rather than following a poster slot by slot over the line it
  // is writing.
  uint64_t batchEnd = tail_.load(std::memory_order_acquire) & ~kOverflowBit;
  int spins = 0;
  for (;;) {
    Slot& slot = ring_[head % kRingSize];
    if (head != batchEnd && slot.published.load(std::memory_order_acquire) == head + 1) {
      slot.task();
      slot.task.reset();
      head_.store(++head, std::memory_order_release);
      spins = 0;
      continue;
    }
    // Nothing published at the head: unless posts are spilling, the queue is handed back at once
    // (idle, or a poster between claiming a slot and publishing it, which the polling picks up),
    // without a look at the posters' line.
    if (!spillPending_.load(std::memory_order_acquire)) return;
    const uint64_t tail = tail_.load(std::memory_order_acquire);
    if ((tail & ~kOverflowBit) != head) {  // slots claimed before the spill come first
      batchEnd = tail & ~kOverflowBit;
      if (++spins > kSpinsBeforeYield) std::this_thread::yield();
      cpuRelax();
      continue;
    }
    takeOverflow(spilled_);
    for (Task& task : spilled_) {
      task();
      task.reset();
    }
    spilled_.clear();  // keeps its capacity for the next spill
  }
}

void SerialQueue::workerLoop() {
  sleeping_.store(false, std::memory_order_seq_cst);
  for (;;) {
    if (!waitForWork()) return;
    uint32_t expected = 0;
    if (!running_.compare_exchange_strong(expected, 1, std::memory_order_seq_cst,
                                          std::memory_order_relaxed)) {
      waitForRelease();
      continue;
    }
    const Frame frame{this, current_};
    current_ = &frame;
    drain();
    current_ = frame.outer;
    running_.store(0, std::memory_order_release);
    // Caught up with the posters: let a few posts gather before looking again, rather than
    // chasing a poster in a tight loop slot by slot over the line it is writing. The queue is
    // free meanwhile, so a caller finding it idle still runs its task inline.
    pause(kGatherPauses);
  }
}

}  // namespace kelo::platform
