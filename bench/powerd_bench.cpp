// kelo-powerd's own cost: the CPU time of one sample with 1,000 open intervals across 100
// processes, on a device tree in a temporary folder. A sample reads the journal on (20 new events
// per sample), every tracked process's stat, the machine's counters and one package domain,
// attributes the interval, and writes the state, the report and the textfile durably.
// Target: below 1% of one core at the default 5-second interval, 50 ms of CPU per sample.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "tools/kelo-powerd/DeviceReader.h"
#include "tools/kelo-powerd/PowerDaemon.h"

namespace {

namespace fs = std::filesystem;
using kelo::powerd::PowerDaemon;
using kelo::powerd::RootReader;
using kelo::powerd::Settings;

constexpr int kProcesses = 100;
constexpr int kIntervalsPerProcess = 10;
constexpr int kFirstPid = 1000;

void put(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::trunc) << text;
}

std::string event(int pid, const char* kind, int app, int seq) {
  char line[256];
  std::snprintf(line, sizeof line,
                R"({"time":1763722560.000000,"pid":%d,"process":"schedd","event":"%s","kind":%d,)"
                R"("bundleID":"com.example.app%03d","updateType":%d,"seqNum":%d})"
                "\n",
                pid, kind, kind[2] == 'a' ? 1 : 2, app, app % 5 + 1, seq);
  return line;
}

// The tree at sample `k`: every process and the machine a little busier, the package counter on.
void advance(const fs::path& root, int k) {
  put(root / "proc/uptime", std::to_string(1e6 + 5.0 * k) + " 1.00\n");
  put(root / "proc/stat", "cpu  " + std::to_string(100000 + 400 * k) + " 0 0 99999 0 0 0 0 0 0\n");
  put(root / "sys/class/powercap/intel-rapl:0/energy_uj",
      std::to_string(1000000 + 36000000ull * k));
  for (int i = 0; i < kProcesses; ++i) {
    const int pid = kFirstPid + i;
    put(root / "proc" / std::to_string(pid) / "stat",
        std::to_string(pid) + " (schedd) S 1 1 1 0 -1 0 0 0 0 0 " + std::to_string(50 + 3 * k) +
            " " + std::to_string(50 + k) + " 0 0 20 0 1 0 5000 0 0\n");
  }
}

void BM_PowerdSample(benchmark::State& state) {
  char pattern[] = "/tmp/kelo-powerd-bench.XXXXXX";
  const fs::path root = ::mkdtemp(pattern);
  put(root / "sys/class/powercap/intel-rapl:0/name", "package-0\n");
  put(root / "sys/class/powercap/intel-rapl:0/max_energy_range_uj", "262143328850\n");
  fs::create_directories(root / "textfile");
  std::string journal;
  for (int i = 0; i < kProcesses; ++i) {
    for (int j = 0; j < kIntervalsPerProcess; ++j) {
      journal += event(kFirstPid + i, "start", (i * kIntervalsPerProcess + j) % 300, j);
    }
  }
  put(root / "run/kelo/energy-events.jsonl", journal);
  advance(root, 0);

  Settings settings;
  settings.root = root.string();
  settings.textfileFolder = (root / "textfile").string();
  RootReader reader(settings.root);
  PowerDaemon daemon(settings, reader, [](const std::string&) {});
  daemon.open(1763722560.0);
  daemon.sample(1763722560.0);  // opens the 1,000 intervals

  int k = 0;
  for (auto _ : state) {
    state.PauseTiming();
    ++k;
    advance(root, k);
    // Ten pieces of work end and begin again: the open count stays at 1,000.
    std::string events;
    for (int i = 0; i < 10; ++i) {
      const int process = (k * 10 + i) % kProcesses;
      const int app = process * kIntervalsPerProcess % 300;
      events +=
          event(kFirstPid + process, "stop", app, 0) + event(kFirstPid + process, "start", app, 0);
    }
    std::ofstream(root / "run/kelo/energy-events.jsonl", std::ios::app) << events;
    state.ResumeTiming();
    if (!daemon.sample(1763722560.0 + 5.0 * k)) state.SkipWithError("a write failed");
  }
  std::size_t open = 0;
  for (const auto& [pid, p] : daemon.state().processes) open += p.open.size();
  state.counters["open_intervals"] = static_cast<double>(open);
  state.counters["processes"] = static_cast<double>(daemon.state().processes.size());
  fs::remove_all(root);
}
BENCHMARK(BM_PowerdSample)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
