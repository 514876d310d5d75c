// A simulated day of a background-scheduling daemon that drives every service of the library:
// configuration from the default system bundle, both loggers with rotation and a full dump, the
// energy service against a simulated power monitor (which restarts its counters once), the
// statistics collector with a prediction cycle, fetch and push decisions, launches, prewarms,
// zone evaluations, reports from a second process (the kelo tool), and the upload at the roll
// to the next cycle.
#ifndef KELO_TOOLS_KELOSIM_SIMULATION_H_
#define KELO_TOOLS_KELOSIM_SIMULATION_H_

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kelo/AppLaunchStatsCumu.h"

namespace kelo::sim {

struct Options {
  int apps = 50;
  uint64_t seed = 1;
  std::string root;          // device root and home live here; made fresh
  std::string bundleSource;  // the system bundle copied into the root
  std::string keloTool;      // the kelo executable that posts reports from a second process
  int reports = 6;           // background-download reports posted by the second process
  // Configuration changes (key, value) stored as the preferences override before the day.
  std::vector<std::pair<std::string, std::string>> settings;
};

struct EnergyTotals {
  int64_t fetch = 0;
  int64_t push = 0;  // push and silent push together, as the energy service reads them
  int64_t backgroundDownload = 0;
  int64_t nonDiscretionary = 0;
  int64_t sum() const { return fetch + push + backgroundDownload + nonDiscretionary; }
};

struct Result {
  int apps = 0;
  uint64_t seed = 0;
  double dayStart = 0;              // seconds since 1970
  EnergyTotals energy;              // every reading of the day
  EnergyTotals energyAfterRestart;  // readings after the power monitor restarted its counters
  double restartAt = 0;             // seconds into the day
  double batteryCapacity = 0;
  int64_t powerEvents = 0;  // start and stop events the power monitor received
  int launches = 0;
  int prewarms = 0;
  int launchSlots = 0;            // distinct (application, 15-minute slot) pairs with a launch
  int prefetchLaunchMinutes = 0;  // distinct launch minutes of prefetch-capable applications
  int predictedSlots = 0;         // over every application
  int64_t dataBytes = 0;          // moved by granted fetches and pushes
  int64_t largestTask = 0;        // mWh, the most one task was seen to take
  std::vector<std::pair<std::string, int64_t>> config;  // the keys the model used, as served
  std::vector<std::pair<std::string, std::string>> settings;
  std::vector<int64_t> energyByHour;  // mWh of every category, read back in each hour
  std::vector<int> launchesByHour;
  int reportsPosted = 0;               // by the second process
  AppLaunchStatsCumu::Snapshot stats;  // the collector just before the roll to the next cycle
  AppLaunchStatsCumu::Snapshot afterRoll;
  std::string metricsPath;
  std::vector<std::pair<std::string, int64_t>> metrics;
  std::string liveLog;
  std::string rotatedLog;
  std::string dump;
  double wallSeconds = 0;
};

// Runs the day. `progress` is told the fraction of the day done. Returns false with `error` set
// when the run could not be set up (unusable root, missing bundle or tool).
bool runSimulation(const Options& options, const std::function<void(double)>& progress,
                   Result* result, std::string* error);

}  // namespace kelo::sim

#endif  // KELO_TOOLS_KELOSIM_SIMULATION_H_
