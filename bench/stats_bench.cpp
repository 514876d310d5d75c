// What a counter operation costs its caller, beside its limit and a peer, in one run:
//   collector counter operations (one posted task each)
//   vs  the bare queue post of an equal closure (the limit: the operation is nothing more)
//   and an increment under a std::mutex (the peer: a lock-based collector)
// Heap allocations per operation are counted through a replaced operator new; the target is
// none beyond the task, which the queue keeps inline. Target: median at most 150 ns.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <new>

#include "bench/ScratchFolder.h"
#include "kelo/AppLaunchStatsCumu.h"
#include "kelo/Overrides.h"
#include "platform/SerialQueue.h"

namespace {
std::atomic<uint64_t> gAllocations{0};
}  // namespace

void* operator new(std::size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t& t) noexcept {
  return operator new(size, t);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using kelo::AppLaunchStatsCumu;

// Every task posted before returns; the queue's buffers have grown to their working size.
void drain(AppLaunchStatsCumu& stats) { stats.snapshot(); }

template <class Op>
void runCounter(benchmark::State& state, Op op) {
  AppLaunchStatsCumu& stats = *AppLaunchStatsCumu::sharedInstance();
  for (int i = 0; i < 100000; ++i) op(stats);  // warm the queue's buffers
  drain(stats);
  const uint64_t before = gAllocations.load(std::memory_order_relaxed);
  for (auto _ : state) op(stats);
  const uint64_t allocations = gAllocations.load(std::memory_order_relaxed) - before;
  drain(stats);
  state.counters["allocs/op"] =
      benchmark::Counter(static_cast<double>(allocations), benchmark::Counter::kAvgIterations);
}

void BM_FetchAttemptIncrement(benchmark::State& state) {
  runCounter(state, [](AppLaunchStatsCumu& s) { s.fetchAttemptIncrement(); });
}
BENCHMARK(BM_FetchAttemptIncrement)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_FetchDeniedBecause(benchmark::State& state) {
  runCounter(state,
             [](AppLaunchStatsCumu& s) { s.fetchDeniedBecause(true, true, false, false, false); });
}
BENCHMARK(BM_FetchDeniedBecause)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_BackgroundSucceeds(benchmark::State& state) {
  runCounter(state, [](AppLaunchStatsCumu& s) { s.backgroundSucceeds(4096, 3); });
}
BENCHMARK(BM_BackgroundSucceeds)->Repetitions(9)->ReportAggregatesOnly(true);

// The limit: a post of a closure of the same size onto a queue of our own.
void BM_BareQueuePost(benchmark::State& state) {
  kelo::platform::SerialQueue queue("bench.stats.post");
  int64_t counter = 0;
  int64_t size = 4096;
  for (auto _ : state) queue.post([&counter, size] { counter += size; });
  queue.sync([] {});
  benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_BareQueuePost)->Repetitions(9)->ReportAggregatesOnly(true);

// The peer: the counter under a mutex, on the caller's thread.
void BM_MutexIncrement(benchmark::State& state) {
  std::mutex mutex;
  int32_t counter = 0;
  for (auto _ : state) {
    std::lock_guard<std::mutex> lock(mutex);
    ++counter;
  }
  benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_MutexIncrement)->Repetitions(9)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  const kelo::bench::ScratchFolder home("kelo-stats-bench");
  kelo::platform::Overrides overrides;
  overrides.homeDirectory = home.path();
  overrides.deviceRoot = home.path();
  kelo::platform::installOverrides(std::move(overrides));
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
