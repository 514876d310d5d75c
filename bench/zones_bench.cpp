// The two zone evaluations over 1,000 applications with a busy day each, beside their limit:
// one plain pass over the same slot arrays that reads every element (what any evaluation must
// at least do). Target: both evaluations together under 5 ms.
//
// Also reports the collector's memory for that day: live heap bytes per application for its
// launch and prewarm arrays, against 2 x 96 x 4 bytes for two arrays of 32-bit elements.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <atomic>
#include <bit>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <filesystem>
#include <mutex>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "bench/ScratchFolder.h"
#include "kelo/AppLaunchStatsCumu.h"
#include "kelo/Overrides.h"

namespace {
std::atomic<int64_t> gLiveBytes{0};
}  // namespace

void* operator new(std::size_t size) {
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  gLiveBytes.fetch_add(static_cast<int64_t>(::malloc_usable_size(p)), std::memory_order_relaxed);
  return p;
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* p) noexcept {
  if (p == nullptr) return;
  gLiveBytes.fetch_sub(static_cast<int64_t>(::malloc_usable_size(p)), std::memory_order_relaxed);
  std::free(p);
}
void operator delete[](void* p) noexcept { operator delete(p); }
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }
void operator delete[](void* p, std::size_t) noexcept { operator delete(p); }

namespace {

using kelo::AppLaunchStatsCumu;

constexpr int kApps = 1000;
constexpr double kStart = 1763722560.0;

// Times handed out one per clock reading: each recorded event reads the clock once, so the
// whole day can be posted without waiting between events.
struct Script {
  std::mutex mutex;
  std::deque<double> times;
  double read() {
    std::lock_guard<std::mutex> lock(mutex);
    if (times.empty()) return kStart;
    const double t = times.front();
    times.pop_front();
    return t;
  }
};
Script gScript;

std::vector<std::string> gApps;
AppLaunchStatsCumu::SlotArray gLaunches[kApps];
AppLaunchStatsCumu::SlotArray gPrewarms[kApps];
double gBytesPerApp = 0;

// A busy day: launches in about 40 slots of 3 minutes each, prewarms in about 30 slots.
void recordBusyDay() {
  AppLaunchStatsCumu& stats = *AppLaunchStatsCumu::sharedInstance();
  stats.setCollectLaunchStats();
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> slot(0, 95), minute(0, 14);
  for (int a = 0; a < kApps; ++a) gApps.push_back("com.example.app" + std::to_string(a));
  stats.snapshot();
  const int64_t before = gLiveBytes.load();
  for (int a = 0; a < kApps; ++a) {
    for (int i = 0; i < 120; ++i) {
      {
        std::lock_guard<std::mutex> lock(gScript.mutex);
        gScript.times.push_back(kStart + slot(rng) * 900.0 + minute(rng) * 60.0);
      }
      stats.appFGLaunch(gApps[a]);
    }
    for (int i = 0; i < 40; ++i) {
      {
        std::lock_guard<std::mutex> lock(gScript.mutex);
        gScript.times.push_back(kStart + slot(rng) * 900.0 + minute(rng) * 60.0);
      }
      stats.appPrewarm(gApps[a]);
    }
    stats.snapshot();  // keeps the script short
  }
  gBytesPerApp = static_cast<double>(gLiveBytes.load() - before) / kApps;
  for (int a = 0; a < kApps; ++a) {
    gLaunches[a] = stats.launchSlots(gApps[a]).value_or(AppLaunchStatsCumu::SlotArray{});
    gPrewarms[a] = stats.prewarmSlots(gApps[a]).value_or(AppLaunchStatsCumu::SlotArray{});
  }
}

void BM_BothEvaluations(benchmark::State& state) {
  AppLaunchStatsCumu& stats = *AppLaunchStatsCumu::sharedInstance();
  for (auto _ : state) {
    stats.populatePredictZones(
        [](const std::string&, uint64_t slot) { return static_cast<int32_t>(slot % 9); });
    stats.populatePrewarmZones([](const std::string&) { return true; });
    stats.snapshot();
  }
  state.counters["apps"] = kApps;
  state.counters["bytes/app"] = gBytesPerApp;
  state.counters["2x96x4"] = 2 * 96 * 4;
}
BENCHMARK(BM_BothEvaluations)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

double threadCpuSeconds() {
  timespec ts;
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The same work timed by the CPU time of the collector's queue thread, from the first callback
// of the prediction pass to the first callback of a third pass queued behind the prewarm pass.
// The machine is shared; this figure leaves out the time the thread waited for a core.
void BM_BothEvaluationsQueueCpu(benchmark::State& state) {
  AppLaunchStatsCumu& stats = *AppLaunchStatsCumu::sharedInstance();
  for (auto _ : state) {
    double begin = -1;
    double end = -1;
    stats.populatePredictZones([&begin](const std::string&, uint64_t slot) {
      if (begin < 0) begin = threadCpuSeconds();
      return static_cast<int32_t>(slot % 9);
    });
    stats.populatePrewarmZones([](const std::string&) { return true; });
    stats.populatePredictZones([&end](const std::string&, uint64_t) {
      if (end < 0) end = threadCpuSeconds();
      return -1;
    });
    stats.snapshot();
    state.SetIterationTime(end - begin);
  }
}
BENCHMARK(BM_BothEvaluationsQueueCpu)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_PredictZones(benchmark::State& state) {
  AppLaunchStatsCumu& stats = *AppLaunchStatsCumu::sharedInstance();
  for (auto _ : state) {
    stats.populatePredictZones(
        [](const std::string&, uint64_t slot) { return static_cast<int32_t>(slot % 9); });
    stats.snapshot();
  }
}
BENCHMARK(BM_PredictZones)->Unit(benchmark::kMillisecond);

void BM_PrewarmZones(benchmark::State& state) {
  AppLaunchStatsCumu& stats = *AppLaunchStatsCumu::sharedInstance();
  for (auto _ : state) {
    stats.populatePrewarmZones([](const std::string&) { return true; });
    stats.snapshot();
  }
}
BENCHMARK(BM_PrewarmZones)->Unit(benchmark::kMillisecond);

// The limit: every launch and prewarm element read once, minute bits counted.
void BM_ScanLimit(benchmark::State& state) {
  for (auto _ : state) {
    int64_t bits = 0;
    for (int a = 0; a < kApps; ++a) {
      for (int s = 0; s < AppLaunchStatsCumu::kSlotCount; ++s) {
        bits += std::popcount(static_cast<unsigned>(gLaunches[a][s])) +
                std::popcount(static_cast<unsigned>(gPrewarms[a][s]));
      }
    }
    benchmark::DoNotOptimize(bits);
  }
}
BENCHMARK(BM_ScanLimit)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  const kelo::bench::ScratchFolder home("kelo-zones-bench");
  kelo::platform::Overrides overrides;
  overrides.homeDirectory = home.path();
  overrides.deviceRoot = home.path();
  overrides.clock = [] { return gScript.read(); };
  kelo::platform::installOverrides(std::move(overrides));
  recordBusyDay();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
