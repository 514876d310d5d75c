#include "tools/kelo-sim/Summary.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <sstream>

#include "kelo/Value.h"
#include "platform/Json.h"

namespace kelo::sim {

namespace {

constexpr std::array<const char*, 9> kZoneNames = {"Neg2HR", "Neg1HR", "Neg30M", "Neg15M", "Pos15M",
                                                   "Pos30M", "Pos1HR", "Pos2HR", "None"};

double hitRate(const AppLaunchStatsCumu::Snapshot& s) {
  const double total = static_cast<double>(s.prewarmHits) + s.prewarmMiss;
  return total > 0 ? s.prewarmHits / total : 0.0;
}

__attribute__((format(printf, 1, 2))) std::string format(const char* fmt, ...) {
  char line[512];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(line, sizeof line, fmt, args);
  va_end(args);
  return line;
}

Value energyValue(const EnergyTotals& e) {
  return Value::dictionary({{"fetch", Value::integer(e.fetch)},
                            {"push", Value::integer(e.push)},
                            {"backgroundDownload", Value::integer(e.backgroundDownload)},
                            {"nonDiscretionary", Value::integer(e.nonDiscretionary)}});
}

Value zonesValue(const AppLaunchStatsCumu::ZoneArray& zones) {
  Value::Dictionary d;
  for (std::size_t z = 0; z < zones.size(); ++z) d[kZoneNames[z]] = Value::integer(zones[z]);
  return Value::dictionary(std::move(d));
}

}  // namespace

std::string textSummary(const Result& r) {
  const AppLaunchStatsCumu::Snapshot& s = r.stats;
  std::ostringstream out;
  out << format("kelo-sim: one simulated day of a background-scheduling daemon (%d applications, "
                "seed %llu), %.1f s of real time\n\n",
                r.apps, static_cast<unsigned long long>(r.seed), r.wallSeconds);

  out << "Energy consumed, as the energy service read it (mWh)\n";
  const auto energyRow = [&out](const char* name, int64_t all, int64_t after) {
    out << format("  %-22s %8lld   (after the restart: %lld)\n", name,
                  static_cast<long long>(all), static_cast<long long>(after));
  };
  energyRow("fetch", r.energy.fetch, r.energyAfterRestart.fetch);
  energyRow("push and silent push", r.energy.push, r.energyAfterRestart.push);
  energyRow("background download", r.energy.backgroundDownload,
            r.energyAfterRestart.backgroundDownload);
  energyRow("non-discretionary", r.energy.nonDiscretionary, r.energyAfterRestart.nonDiscretionary);
  out << format("  the power monitor restarted its counters at %02d:00; %lld start/stop events; "
                "battery capacity %.0f mWh\n\n",
                static_cast<int>(r.restartAt / 3600), static_cast<long long>(r.powerEvents),
                r.batteryCapacity);

  out << "Decisions\n";
  out << format("  fetch  %5d attempts, %4d denied (data budget %d, energy budget %d, poor "
                "signal %d); %d updates given, %d failed, %d forced releases\n",
                s.fetchAttempt, s.fetchDenied, s.fetchDeniedNoData, s.fetchDeniedNoPW,
                s.fetchDeniedPoorCell, s.fetchGiven, s.fetchFailedCount, s.forceRelease);
  out << format("  push   %5d attempts, %4d denied (data budget %d, energy budget %d, poor "
                "signal %d)\n",
                s.pushAttempt, s.pushDenied, s.pushDeniedNoData, s.pushDeniedNoPW,
                s.pushDeniedPoorCell);
  out << format("  reports from a second process: %d posted, %d background downloads and "
                "%lld bytes of non-discretionary downloads received\n\n",
                r.reportsPosted, s.totalBGDownloads,
                static_cast<long long>(s.totalNonDiscDownload));

  out << format("Zones (%d launches and %d prewarms recorded)\n", r.launches, r.prewarms);
  out << "            ";
  for (const char* name : kZoneNames) out << format("%7s", name);
  out << "\n  prediction";
  for (int32_t c : s.zoneCounts) out << format("%7d", c);
  out << "\n  prewarm   ";
  for (int32_t c : s.prewarmZoneCounts) out << format("%7d", c);
  out << format("\n  prewarm hits %d, misses %d: hit rate %.1f%%\n\n", s.prewarmHits,
                s.prewarmMiss, 100.0 * hitRate(s));

  out << format("Metrics written at the roll to the next cycle (%zu keys in %s)\n",
                r.metrics.size(), r.metricsPath.c_str());
  for (const auto& [key, value] : r.metrics) {
    out << format("  %-45s %lld\n", key.c_str(), static_cast<long long>(value));
  }
  out << "\nFiles\n";
  out << "  live log     " << r.liveLog << "\n";
  out << "  rotated log  " << (r.rotatedLog.empty() ? "(none)" : r.rotatedLog) << "\n";
  out << "  full dump    " << (r.dump.empty() ? "(none)" : r.dump) << "\n";
  return out.str();
}

std::string jsonSummary(const Result& r) {
  const AppLaunchStatsCumu::Snapshot& s = r.stats;
  Value::Dictionary metrics;
  for (const auto& [key, value] : r.metrics) metrics[key] = Value::integer(value);
  const Value summary = Value::dictionary({
      {"apps", Value::integer(r.apps)},
      {"seed", Value::integer(static_cast<int64_t>(r.seed))},
      {"dayStart", Value::real(r.dayStart)},
      {"wallSeconds", Value::real(r.wallSeconds)},
      {"energy", energyValue(r.energy)},
      {"energyAfterRestart", energyValue(r.energyAfterRestart)},
      {"restartAt", Value::real(r.restartAt)},
      {"powerEvents", Value::integer(r.powerEvents)},
      {"batteryCapacity", Value::real(r.batteryCapacity)},
      {"fetch", Value::dictionary({{"attempts", Value::integer(s.fetchAttempt)},
                                   {"denied", Value::integer(s.fetchDenied)},
                                   {"deniedDataBudget", Value::integer(s.fetchDeniedNoData)},
                                   {"deniedEnergyBudget", Value::integer(s.fetchDeniedNoPW)},
                                   {"deniedPoorSignal", Value::integer(s.fetchDeniedPoorCell)},
                                   {"updatesGiven", Value::integer(s.fetchGiven)},
                                   {"updatesFailed", Value::integer(s.fetchFailedCount)},
                                   {"forcedReleases", Value::integer(s.forceRelease)}})},
      {"push", Value::dictionary({{"attempts", Value::integer(s.pushAttempt)},
                                  {"denied", Value::integer(s.pushDenied)},
                                  {"deniedDataBudget", Value::integer(s.pushDeniedNoData)},
                                  {"deniedEnergyBudget", Value::integer(s.pushDeniedNoPW)},
                                  {"deniedPoorSignal", Value::integer(s.pushDeniedPoorCell)}})},
      {"reports", Value::dictionary(
                      {{"posted", Value::integer(r.reportsPosted)},
                       {"backgroundDownloads", Value::integer(s.totalBGDownloads)},
                       {"backgroundDownloadBytes", Value::integer(s.avgDownloadsize)},
                       {"nonDiscretionaryBytes", Value::integer(s.totalNonDiscDownload)}})},
      {"launches", Value::integer(r.launches)},
      {"prewarms", Value::integer(r.prewarms)},
      {"zones", Value::dictionary({{"prediction", zonesValue(s.zoneCounts)},
                                   {"prewarm", zonesValue(s.prewarmZoneCounts)},
                                   {"prewarmHits", Value::integer(s.prewarmHits)},
                                   {"prewarmMiss", Value::integer(s.prewarmMiss)},
                                   {"hitRate", Value::real(hitRate(s))}})},
      {"metricsDatabase", Value::string(r.metricsPath)},
      {"metrics", Value::dictionary(std::move(metrics))},
      {"files", Value::dictionary({{"liveLog", Value::string(r.liveLog)},
                                   {"rotatedLog", Value::string(r.rotatedLog)},
                                   {"dump", Value::string(r.dump)}})},
  });
  return platform::toJson(summary, true) + "\n";
}

}  // namespace kelo::sim
