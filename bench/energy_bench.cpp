// Cost of charging an energy report to the budget pools and reading the result back, by report
// size (1,000, 10,000 and 100,000 entries spread over the five update types):
//   refresh + the four readings      the service: queue hop, pool map under its mutex, atomics
//   the same charging into plain maps  the peer: one std::unordered_map lookup and store per
//                                      entry, no queue, no lock, no atomics, no logging gate
//   reading the report alone           the limit: the three fields of each entry, nothing charged
//   refresh with reordered reports     the service when consecutive reports list the
//                                      applications in different orders
// The refresh runs on the service's worker: its rows give wall time and the process's CPU time.
// The service is one per process and its pools keep every record they ever charged, so each of
// the two service families gives its own figures only in a run of its own:
//   kelo_energy_bench --benchmark_filter='RefreshAndRead/'
//   kelo_energy_bench --benchmark_filter=Reordered
// Growth must be linear: 100,000 entries may cost at most 12 times 10,000.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>

#include "kelo/AmpvexStub.h"
#include "kelo/Overrides.h"
#include "kelo/Value.h"

namespace {

using kelo::Value;

constexpr double kReferenceDate = 1763700000.0;

class BenchMonitor : public kelo::platform::PowerMonitor {
 public:
  void set(const Value& report) {
    std::lock_guard<std::mutex> lock(mutex_);
    report_ = report;
  }
  void logEvent(const char*, int16_t, uint64_t, int32_t) override {}
  void stopAllEvents() override {}
  std::optional<Value> reportEnergy(const void*) override {
    std::lock_guard<std::mutex> lock(mutex_);
    return report_;
  }

 private:
  std::mutex mutex_;
  std::optional<Value> report_;
};

std::shared_ptr<BenchMonitor> gMonitor = std::make_shared<BenchMonitor>();

// Entry i: application i / 5 with update type 1 + i % 5, so each pool receives n / 5 records.
// Every run uses the same identifiers; runs go from small to large, so a pool never holds more
// records than the run in progress charges.
Value makeReport(int64_t n, double base) {
  Value::Array entries;
  entries.reserve(static_cast<std::size_t>(n));
  for (int64_t i = 0; i < n; ++i) {
    Value::Dictionary e;
    e.emplace("bundleID", Value::string("com.bench.app" + std::to_string(i / 5)));
    e.emplace("updateType", Value::integer(1 + i % 5));
    e.emplace("energy_mWh", Value::real(base + static_cast<double>(i % 7) + 0.5));
    entries.push_back(Value::dictionary(std::move(e)));
  }
  Value::Dictionary report;
  report.emplace("BLMBatteryCapacity", Value::integer(3279));
  report.emplace("BLMEnergyReferenceDate", Value::date(kReferenceDate));
  report.emplace("BLMEnergyForKelo", Value::array(std::move(entries)));
  return Value::dictionary(std::move(report));
}

// Two reports of the same reference date whose amounts differ, served in turn, so that every
// refresh moves every record's diff.
std::array<Value, 2> reportPair(int64_t n) { return {makeReport(n, 1000), makeReport(n, 2000)}; }

void BM_RefreshAndRead(benchmark::State& state) {
  const std::array<Value, 2> reports = reportPair(state.range(0));
  kelo::AmpvexStub* stub = kelo::AmpvexStub::instance();
  int64_t consumed = 0;
  std::size_t turn = 0;
  for (auto _ : state) {
    gMonitor->set(reports[turn++ % 2]);
    stub->energyConsumedRefresh();
    consumed += stub->energyConsumedForFetch();
    consumed += stub->energyConsumedForPush();
    consumed += stub->energyConsumedForBackgroundDownload();
    consumed += stub->energyConsumedForNonDiscDownload();
  }
  benchmark::DoNotOptimize(consumed);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RefreshAndRead)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

// The peer: the same cumulative charging and diff sums, into five plain hash maps.
void BM_ChargePlainMaps(benchmark::State& state) {
  const std::array<Value, 2> reports = reportPair(state.range(0));
  struct Record {
    int64_t value = 0;
    int64_t diff = 0;
  };
  std::array<std::unordered_map<std::string, Record>, 5> pools;
  int64_t consumed = 0;
  std::size_t turn = 0;
  for (auto _ : state) {
    const Value& report = reports[turn++ % 2];
    for (const Value& entry : report.find("BLMEnergyForKelo")->asArray()) {
      const int64_t type = entry.find("updateType")->integerValue();
      if (type < 1 || type > 5) continue;
      const int64_t cost = entry.find("energy_mWh")->integerValue();
      Record& r = pools[static_cast<std::size_t>(type - 1)][entry.find("bundleID")->asString()];
      r.diff = cost - r.value;
      r.value = cost;
    }
    for (auto& pool : pools) {
      for (auto& [key, r] : pool) {
        consumed += r.diff;
        r.diff = 0;
      }
    }
  }
  benchmark::DoNotOptimize(consumed);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ChargePlainMaps)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// The physical limit: reading each entry's three fields, with no charging at all.
void BM_ReadReportOnly(benchmark::State& state) {
  const std::array<Value, 2> reports = reportPair(state.range(0));
  int64_t sum = 0;
  std::size_t turn = 0;
  for (auto _ : state) {
    for (const Value& entry : reports[turn++ % 2].find("BLMEnergyForKelo")->asArray()) {
      sum += entry.find("updateType")->integerValue();
      sum += entry.find("energy_mWh")->integerValue();
      sum += static_cast<int64_t>(entry.find("bundleID")->asString().size());
    }
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ReadReportOnly)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// The service when consecutive reports list the applications in different orders: every charge
// goes through the pool's hash index instead of following the previous report's order.
void BM_RefreshAndReadReordered(benchmark::State& state) {
  const int64_t n = state.range(0);
  std::array<Value, 2> reports = reportPair(n);
  Value::Array shuffled = reports[1].find("BLMEnergyForKelo")->asArray();
  std::mt19937_64 random(42);
  std::shuffle(shuffled.begin(), shuffled.end(), random);
  Value::Dictionary second = reports[1].asDictionary();
  second.insert_or_assign("BLMEnergyForKelo", Value::array(std::move(shuffled)));
  reports[1] = Value::dictionary(std::move(second));

  kelo::AmpvexStub* stub = kelo::AmpvexStub::instance();
  int64_t consumed = 0;
  std::size_t turn = 0;
  for (auto _ : state) {
    gMonitor->set(reports[turn++ % 2]);
    stub->energyConsumedRefresh();
    consumed += stub->energyConsumedForFetch();
    consumed += stub->energyConsumedForPush();
    consumed += stub->energyConsumedForBackgroundDownload();
    consumed += stub->energyConsumedForNonDiscDownload();
  }
  benchmark::DoNotOptimize(consumed);
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_RefreshAndReadReordered)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // A scratch device root and home, with the logger off and the monitor above, before the
  // service exists.
  std::string scratch = (std::filesystem::temp_directory_path() / "kelo-energy-bench.XXXXXX");
  if (::mkdtemp(scratch.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  kelo::platform::Overrides overrides;
  overrides.deviceRoot = scratch;
  overrides.homeDirectory = scratch;
  overrides.processName = "kelobench";
  overrides.powerMonitor = gMonitor;
  kelo::platform::installOverrides(overrides);

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ec;
  std::filesystem::remove_all(scratch, ec);
  return 0;
}
