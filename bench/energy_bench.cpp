// Cost of charging an energy report to the budget pools and reading the result back, by report
// size (1,000, 10,000 and 100,000 entries spread over the five update types):
//   refresh + the four readings      the service: queue hop, pool map under its mutex, atomics
//   the same charging into plain maps  the limit: one hash lookup and store per entry, no queue,
//                                      no lock, no atomics, no logging gate
// Growth must be linear: 100,000 entries may cost at most 12 times 10,000.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
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
BENCHMARK(BM_RefreshAndRead)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// The limit: the same cumulative charging and diff sums, into five plain hash maps.
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
