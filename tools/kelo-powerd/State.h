// What kelo-powerd carries from one sample to the next, and across restarts in
// <root>/var/lib/kelo/powerd-state.json: the counter epoch, the last readings of every counter,
// the open intervals, where the journal was read up to, and the energy attributed so far.
#ifndef KELO_TOOLS_KELO_POWERD_STATE_H_
#define KELO_TOOLS_KELO_POWERD_STATE_H_

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "tools/kelo-powerd/Journal.h"

namespace kelo::powerd {

// What the report counts energy for: a bundle identifier and an update type.
struct WorkKey {
  std::string bundleId;
  int updateType = 0;
  auto operator<=>(const WorkKey&) const = default;
};

// One announced piece of work: a start not yet matched by its stop.
struct IntervalKey {
  std::string bundleId;
  int updateType = 0;
  uint64_t seqNum = 0;
  auto operator<=>(const IntervalKey&) const = default;
};

// A process that announced work and still lives. It stays tracked while it lives, open
// intervals or not, so that its CPU time has a baseline when its next work begins.
struct TrackedProcess {
  uint64_t startTicks = 0;           // tells this process from a later one with the same pid
  std::optional<uint64_t> cpuTicks;  // utime + stime at the last sample; absent before the first
  std::set<IntervalKey> open;
};

struct State {
  // Whole seconds since 1970: the start of this counter epoch, "BLMEnergyReferenceDate".
  int64_t referenceDate = 0;
  // The readings of the last sample; a new boot clears them (the counters restarted).
  std::string bootId;
  std::optional<double> uptime;
  std::optional<uint64_t> busyTicks;
  std::optional<std::map<std::string, uint64_t>> packages;  // zone -> energy_uj; absent: unread
  JournalPosition journal;
  std::map<int, TrackedProcess> processes;
  // mWh attributed since the reference date.
  std::map<WorkKey, double> totals;
  uint64_t skippedLines = 0;  // malformed journal lines
  uint64_t overLimit = 0;     // starts and attributions refused because a limit was reached
};

// The state as the JSON text of its file.
std::string stateToJson(const State& state);

// The state in `text`, or nullopt with `*error` saying what is wrong with it.
std::optional<State> stateFromJson(const std::string& text, std::string* error);

}  // namespace kelo::powerd

#endif  // KELO_TOOLS_KELO_POWERD_STATE_H_
