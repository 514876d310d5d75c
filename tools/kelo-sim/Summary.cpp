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
  return Value::dictionary({{"unit", Value::string("mWh")},
                            {"fetch", Value::integer(e.fetch)},
                            {"push", Value::integer(e.push)},
                            {"backgroundDownload", Value::integer(e.backgroundDownload)},
                            {"nonDiscretionary", Value::integer(e.nonDiscretionary)}});
}

Value zonesValue(const AppLaunchStatsCumu::ZoneArray& zones) {
  Value::Dictionary d;
  for (std::size_t z = 0; z < zones.size(); ++z) d[kZoneNames[z]] = Value::integer(zones[z]);
  return Value::dictionary(std::move(d));
}

// "1 launch", "2 launches".
std::string plural(int n, const std::string& noun) {
  std::string word = noun;
  if (n != 1) {
    const char last = noun.back();
    word += last == 's' || last == 'h' ? "es" : "s";
  }
  return std::to_string(n) + " " + word;
}

const char* unitOf(const std::string& key) {
  if (key.find("PowerBudget") != std::string::npos) return " mWh";
  if (key.find("DataBudget") != std::string::npos) return " bytes";
  return "";
}

int64_t configValue(const Result& r, const std::string& key) {
  for (const auto& [k, v] : r.config) {
    if (k == key) return v;
  }
  return -1;
}

std::string budgetText(const Result& r, const std::string& key, const char* unit) {
  const int64_t v = configValue(r, key);
  if (configValue(r, "enableBudgeting") <= 0) return "(budgeting off)";
  return v < 0 ? std::string("no limit") : std::to_string(v) + " " + unit;
}

}  // namespace

std::string textSummary(const Result& r) {
  const AppLaunchStatsCumu::Snapshot& s = r.stats;
  std::ostringstream out;
  out << format(
      "kelo-sim: one simulated day of a background-scheduling daemon (%s, seed %llu), "
      "%.1f s of real time\n",
      plural(r.apps, "application").c_str(), static_cast<unsigned long long>(r.seed),
      r.wallSeconds);
  if (!r.settings.empty()) {
    out << "  configuration changed by the operator's override:";
    for (const auto& [key, value] : r.settings) out << " " << key << "=" << value;
    out << "\n";
  }
  out << "  the model's keys as served:";
  for (const auto& [key, value] : r.config) {
    out << format(" %s=%lld%s", key.c_str(), static_cast<long long>(value), unitOf(key));
  }
  out << "\n\n";

  out << "Energy consumed, as the energy service read it back\n";
  const auto energyRow = [&out](const char* name, int64_t all, int64_t after) {
    out << format("  %-22s %8lld mWh   (after the restart: %lld mWh)\n", name,
                  static_cast<long long>(all), static_cast<long long>(after));
  };
  energyRow("fetch", r.energy.fetch, r.energyAfterRestart.fetch);
  energyRow("push and silent push", r.energy.push, r.energyAfterRestart.push);
  energyRow("background download", r.energy.backgroundDownload,
            r.energyAfterRestart.backgroundDownload);
  energyRow("non-discretionary", r.energy.nonDiscretionary, r.energyAfterRestart.nonDiscretionary);
  out << format(
      "  fetch and push together: %lld mWh of a globalPowerBudget of %s; the largest "
      "single task took %lld mWh\n",
      static_cast<long long>(r.energy.fetch + r.energy.push),
      budgetText(r, "globalPowerBudget", "mWh").c_str(), static_cast<long long>(r.largestTask));
  out << format(
      "  the power monitor restarted its counters at %02d:00; %s; battery capacity "
      "%.0f mWh\n\n",
      static_cast<int>(r.restartAt / 3600),
      plural(static_cast<int>(r.powerEvents), "start/stop event").c_str(), r.batteryCapacity);

  out << "Decisions (each denial has one reason: the first of data budget, energy budget, "
         "signal)\n";
  const int fetchBusy =
      s.fetchDenied - s.fetchDeniedNoData - s.fetchDeniedNoPW - s.fetchDeniedPoorCell;
  out << format(
      "  fetch  %s, %d denied = %d data budget + %d energy budget + %d poor signal + "
      "%d with maxFetchApps fetches under way\n",
      plural(s.fetchAttempt, "attempt").c_str(), s.fetchDenied, s.fetchDeniedNoData,
      s.fetchDeniedNoPW, s.fetchDeniedPoorCell, fetchBusy);
  out << format("         %s given, %d failed, %s\n", plural(s.fetchGiven, "update").c_str(),
                s.fetchFailedCount, plural(s.forceRelease, "forced release").c_str());
  out << format("  push   %s, %d denied = %d data budget + %d energy budget + %d poor signal\n",
                plural(s.pushAttempt, "attempt").c_str(), s.pushDenied, s.pushDeniedNoData,
                s.pushDeniedNoPW, s.pushDeniedPoorCell);
  out << format(
      "  data moved by granted fetches and pushes: %lld bytes of a globalDataBudget "
      "of %s\n",
      static_cast<long long>(r.dataBytes), budgetText(r, "globalDataBudget", "bytes").c_str());
  out << format(
      "  reports from a second process: %s posted; %s and %lld bytes of "
      "non-discretionary downloads received\n\n",
      plural(r.reportsPosted, "report").c_str(),
      plural(s.totalBGDownloads, "background download").c_str(),
      static_cast<long long>(s.totalNonDiscDownload));

  out << format("Zones: %s and %s recorded; %s predicted from a week of history\n",
                plural(r.launches, "launch").c_str(), plural(r.prewarms, "prewarm").c_str(),
                plural(r.predictedSlots, "slot").c_str());
  out << format(
      "  the prediction row counts launch slots (%d: an application's launches in one "
      "15-minute slot count once); the prewarm row counts launch minutes of "
      "prefetch-capable applications (%d)\n",
      r.launchSlots, r.prefetchLaunchMinutes);
  out << "            ";
  for (const char* name : kZoneNames) out << format("%7s", name);
  out << "\n  prediction";
  for (int32_t c : s.zoneCounts) out << format("%7d", c);
  out << "\n  prewarm   ";
  for (int32_t c : s.prewarmZoneCounts) out << format("%7d", c);
  out << format("\n  prewarm %s, %s: hit rate %.1f%%\n\n", plural(s.prewarmHits, "hit").c_str(),
                plural(s.prewarmMiss, "miss").c_str(), 100.0 * hitRate(s));

  out << format("Metrics written at the roll to the next cycle (%s in %s)\n",
                plural(static_cast<int>(r.metrics.size()), "key").c_str(), r.metricsPath.c_str());
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
  // The keys the model used, as served; power budgets in mWh, data budgets in bytes.
  Value::Dictionary keys;
  for (const auto& [key, value] : r.config) keys[key] = Value::integer(value);
  keys["powerUnit"] = Value::string("mWh");
  keys["dataUnit"] = Value::string("bytes");
  const Value budgets = Value::dictionary(std::move(keys));
  Value::Dictionary settings;
  for (const auto& [key, value] : r.settings) settings[key] = Value::string(value);
  const Value summary = Value::dictionary({
      {"apps", Value::integer(r.apps)},
      {"seed", Value::integer(static_cast<int64_t>(r.seed))},
      {"settings", Value::dictionary(std::move(settings))},
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
                                   {"deniedTooManyFetches",
                                    Value::integer(s.fetchDenied - s.fetchDeniedNoData -
                                                   s.fetchDeniedNoPW - s.fetchDeniedPoorCell)},
                                   {"updatesGiven", Value::integer(s.fetchGiven)},
                                   {"updatesFailed", Value::integer(s.fetchFailedCount)},
                                   {"forcedReleases", Value::integer(s.forceRelease)}})},
      {"push", Value::dictionary({{"attempts", Value::integer(s.pushAttempt)},
                                  {"denied", Value::integer(s.pushDenied)},
                                  {"deniedDataBudget", Value::integer(s.pushDeniedNoData)},
                                  {"deniedEnergyBudget", Value::integer(s.pushDeniedNoPW)},
                                  {"deniedPoorSignal", Value::integer(s.pushDeniedPoorCell)}})},
      {"reports",
       Value::dictionary({{"posted", Value::integer(r.reportsPosted)},
                          {"backgroundDownloads", Value::integer(s.totalBGDownloads)},
                          {"backgroundDownloadBytes", Value::integer(s.avgDownloadsize)},
                          {"nonDiscretionaryBytes", Value::integer(s.totalNonDiscDownload)}})},
      {"budgets", budgets},
      {"largestTask_mWh", Value::integer(r.largestTask)},
      {"dataBytes", Value::integer(r.dataBytes)},
      {"launches", Value::integer(r.launches)},
      {"launchSlots", Value::integer(r.launchSlots)},
      {"prefetchLaunchMinutes", Value::integer(r.prefetchLaunchMinutes)},
      {"predictedSlots", Value::integer(r.predictedSlots)},
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
