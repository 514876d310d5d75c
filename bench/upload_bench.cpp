// What a full statistics upload (every key) costs in the default metrics store, beside the same
// rows written through one prepared SQLite statement in one transaction (the peer), with the
// store's settings (WAL, synchronous FULL), in a folder of the same disk, in one run.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "bench/ScratchFolder.h"
#include "kelo/AppLaunchStatsCumu.h"
#include "kelo/Overrides.h"
#include "platform/Metrics.h"

namespace {

namespace fs = std::filesystem;
using kelo::AppLaunchStatsCumu;

std::string gDir;  // the scratch folder

// Gives every group of the collector something to upload, so that the upload writes every key.
void fillEveryGroup(AppLaunchStatsCumu& s) {
  s.fetchAttemptIncrement();
  s.fetchDeniedBecause(true, false, false, false, false);
  s.forceReleaseCount();
  s.pushAttemptIncrement();
  s.pushDeniedBecause(false, true, true, true, true);
  s.fetchCountUpdate(2);
  s.fetchFailedUpdate();
  s.fetchPWCount(10);
  s.fetchDataCount(100);
  s.fetchTimeUpdate(7);
  s.backgroundSucceeds(4096, 3);
  s.nonDiscretionaryAdd(1000, 20);
  s.appFGLaunch("com.example.app");
  s.appPrewarm("com.example.app");
  s.populatePredictZones([](const std::string&, uint64_t) { return 4; });
  s.populatePrewarmZones([](const std::string&) { return true; });
}

void BM_FullUpload(benchmark::State& state) {
  AppLaunchStatsCumu stats;
  stats.setCollectLaunchStats();
  const AppLaunchStatsCumu::Predictions apps;
  for (auto _ : state) {
    state.PauseTiming();
    fillEveryGroup(stats);
    stats.snapshot();  // every operation above has run
    state.ResumeTiming();
    stats.newCycleWithApps(apps);  // uploads
    stats.snapshot();
  }
  const auto rows = kelo::platform::readMetricsDatabase(kelo::platform::metricsDatabasePath());
  state.counters["keys"] = static_cast<double>(rows.rows.size());
}
BENCHMARK(BM_FullUpload)->Unit(benchmark::kMillisecond)->UseRealTime();

// The peer: the rows the store holds after an upload, written again as one transaction through
// one prepared UPSERT statement. The values change every round, as an upload's running totals
// do (SQLite skips rewriting a row that stays the same, and a commit that changed nothing is
// not synced).
void BM_SqliteOneTransaction(benchmark::State& state) {
  const auto stored = kelo::platform::readMetricsDatabase(kelo::platform::metricsDatabasePath());
  if (!stored.ok || stored.rows.empty()) {
    state.SkipWithError("no rows to write: the first upload failed");
    return;
  }
  const std::string path = gDir + "/peer.db";
  sqlite3* db = nullptr;
  sqlite3_stmt* upsert = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_exec(db, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_exec(db,
                   "CREATE TABLE IF NOT EXISTS scalar_metrics(key TEXT PRIMARY KEY NOT NULL, "
                   "value INTEGER NOT NULL) WITHOUT ROWID",
                   nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(db,
                         "INSERT INTO scalar_metrics(key, value) VALUES(?1, ?2) "
                         "ON CONFLICT(key) DO UPDATE SET value = excluded.value",
                         -1, &upsert, nullptr) != SQLITE_OK) {
    state.SkipWithError(sqlite3_errmsg(db));
    sqlite3_close(db);
    return;
  }
  int64_t round = 0;
  for (auto _ : state) {
    ++round;
    sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    for (const auto& [key, value] : stored.rows) {
      sqlite3_bind_text(upsert, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
      sqlite3_bind_int64(upsert, 2, value + round);
      if (sqlite3_step(upsert) != SQLITE_DONE) state.SkipWithError(sqlite3_errmsg(db));
      sqlite3_reset(upsert);
    }
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  }
  state.counters["keys"] = static_cast<double>(stored.rows.size());
  sqlite3_finalize(upsert);
  sqlite3_close(db);
}
BENCHMARK(BM_SqliteOneTransaction)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  const kelo::bench::ScratchFolder scratch("kelo-upload-bench");
  gDir = scratch.path();
  kelo::platform::Overrides overrides;
  overrides.homeDirectory = gDir;
  overrides.deviceRoot = gDir;
  overrides.systemLog = [](int, const char*) {};
  kelo::platform::installOverrides(std::move(overrides));
  {  // one upload before any benchmark, so that the store holds every key for the peer
    AppLaunchStatsCumu stats;
    stats.setCollectLaunchStats();
    fillEveryGroup(stats);
    stats.newCycleWithApps(AppLaunchStatsCumu::Predictions());
    stats.snapshot();
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
