// How long a download report takes from the reporting process to the collector's handler, beside
// the physical limit: one byte's one-way trip through a pipe between the same two processes.
//
// A child process, forked before any thread exists, waits for a command byte and then either
// reports (carrying its send time, CLOCK_MONOTONIC nanoseconds, in the report's data field) or
// writes its send time into a pipe. The parent measures, in each case, from the child's send
// time to the moment its side wakes up: the report handler entered on the collector's queue, or
// the blocking read() returning.
//
// Targets: report p50 <= 3x the pipe's p50; report p99 <= 10x the report's p50.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "kelo/Overrides.h"
#include "kelo/stats.h"
#include "platform/Notify.h"
#include "platform/SerialQueue.h"

namespace {

using kelo::platform::SerialQueue;

constexpr char kReportName[] = "com.vorn.Kelo.CUMUNotificationReport";
constexpr uint64_t kDataMask = (uint64_t{1} << 44) - 1;

uint64_t nowNs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

int gCommandFd = -1;  // parent -> child commands
int gPipeFd = -1;     // child -> parent send times

void childLoop(int commandFd, int pipeFd) {
  for (;;) {
    char command;
    if (::read(commandFd, &command, 1) != 1) ::_exit(0);
    const uint64_t sent = nowNs();
    if (command == 'r') {
      reportCumuBackgroundDownload(static_cast<int64_t>(sent & kDataMask), 0);
    } else if (command == 'p') {
      if (::write(pipeFd, &sent, sizeof sent) != sizeof sent) ::_exit(1);
    }
  }
}

void command(char c) {
  if (::write(gCommandFd, &c, 1) != 1) std::abort();
}

struct Percentiles {
  double p50 = 0, p99 = 0;
};

Percentiles percentiles(std::vector<double> v) {
  if (v.empty()) return {};
  std::sort(v.begin(), v.end());
  return {v[v.size() / 2], v[std::min(v.size() - 1, v.size() * 99 / 100)]};
}

Percentiles gReport;
Percentiles gPipe;

void report(benchmark::State& state, const Percentiles& p, std::vector<double>& samples) {
  state.counters["p50_us"] = p.p50 * 1e6;
  state.counters["p99_us"] = p.p99 * 1e6;
  samples.clear();
}

void BM_ReportToHandler(benchmark::State& state) {
  SerialQueue queue("com.vorn.Kelo.CUMU");
  std::atomic<uint64_t> latencyNs{0};
  std::atomic<uint32_t> arrived{0};
  int token = 0;
  const uint32_t status =
      kelo::platform::notify_register_dispatch(kReportName, &token, &queue, [&](int t) {
        const uint64_t entered = nowNs();
        uint64_t word = 0;
        kelo::platform::notify_get_state(t, &word);
        const uint64_t sent = (word >> 4) & kDataMask;
        latencyNs.store((entered - sent) & kDataMask, std::memory_order_relaxed);
        arrived.store(1, std::memory_order_release);
        arrived.notify_one();
      });
  if (status != kelo::platform::kNotifyStatusOk) {
    state.SkipWithError("notify_register_dispatch failed");
    return;
  }
  std::vector<double> samples;
  samples.reserve(static_cast<size_t>(state.max_iterations));
  for (auto _ : state) {
    arrived.store(0, std::memory_order_relaxed);
    command('r');
    while (arrived.load(std::memory_order_acquire) == 0) arrived.wait(0);
    const double seconds = static_cast<double>(latencyNs.load(std::memory_order_relaxed)) / 1e9;
    state.SetIterationTime(seconds);
    samples.push_back(seconds);
  }
  kelo::platform::notify_cancel(token);
  gReport = percentiles(samples);
  report(state, gReport, samples);
}

void BM_PipeOneWay(benchmark::State& state) {
  std::vector<double> samples;
  samples.reserve(static_cast<size_t>(state.max_iterations));
  for (auto _ : state) {
    command('p');
    uint64_t sent = 0;
    if (::read(gPipeFd, &sent, sizeof sent) != sizeof sent) {
      state.SkipWithError("pipe read failed");
      return;
    }
    const double seconds = static_cast<double>(nowNs() - sent) / 1e9;
    state.SetIterationTime(seconds);
    samples.push_back(seconds);
  }
  gPipe = percentiles(samples);
  report(state, gPipe, samples);
}

BENCHMARK(BM_PipeOneWay)->UseManualTime()->Iterations(20000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReportToHandler)->UseManualTime()->Iterations(20000)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  // The notification folder lives under /run, a tmpfs, on a real system; so does this one.
  char root[] = "/dev/shm/kelo-report-bench.XXXXXX";
  if (::mkdtemp(root) == nullptr) return 1;
  kelo::platform::Overrides overrides;
  overrides.deviceRoot = std::string(root);
  overrides.homeDirectory = std::string(root);
  kelo::platform::installOverrides(std::move(overrides));

  int commands[2];
  int times[2];
  if (::pipe(commands) != 0 || ::pipe(times) != 0) return 1;
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(commands[1]);
    ::close(times[0]);
    childLoop(commands[0], times[1]);
  }
  ::close(commands[0]);
  ::close(times[1]);
  gCommandFd = commands[1];
  gPipeFd = times[0];

  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  ::close(gCommandFd);
  ::waitpid(child, nullptr, 0);
  if (gReport.p50 > 0 && gPipe.p50 > 0) {
    std::printf(
        "report p50 %.1f us = %.2fx pipe one-way p50 %.1f us (target <= 3x); "
        "report p99 %.1f us = %.2fx its p50 (target <= 10x)\n",
        gReport.p50 * 1e6, gReport.p50 / gPipe.p50, gPipe.p50 * 1e6, gReport.p99 * 1e6,
        gReport.p99 / gReport.p50);
  }
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return 0;
}
