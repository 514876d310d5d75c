#include "tools/kelo-powerd/Attribution.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

namespace kelo::powerd {

namespace {

constexpr double kMicrojoulesPerMilliwattHour = 3.6e6;
constexpr double kJoulesPerMilliwattHour = 3.6;
// The announcing process's clock and the boot time derived from ours may disagree by this much.
constexpr double kClockSlackSeconds = 2.0;

// Increase of a counter that runs from 0 to `max` and then starts again at 0.
uint64_t counterIncrease(uint64_t before, uint64_t now, uint64_t max) {
  if (now >= before) return now - before;
  return max >= before ? (max - before) + now : now;
}

// The package energy of the interval in microjoules, when both ends were read from the same
// zones.
std::optional<double> packageIncrease(const std::optional<std::map<std::string, uint64_t>>& before,
                                      const std::vector<PackageCounter>& now) {
  if (!before || before->size() != now.size()) return std::nullopt;
  double total = 0;
  for (const PackageCounter& c : now) {
    const auto it = before->find(c.zone);
    if (it == before->end()) return std::nullopt;
    total += static_cast<double>(counterIncrease(it->second, c.energyUj, c.maxEnergyUj));
  }
  return total;
}

std::size_t openCount(const State& state) {
  std::size_t n = 0;
  for (const auto& [pid, p] : state.processes) n += p.open.size();
  return n;
}

}  // namespace

const char* modelName(Model model) { return model == Model::kPackage ? "package" : "cpu-watts"; }

bool noteBoot(State& state, const std::string& bootId) {
  if (bootId == state.bootId) return false;
  state.bootId = bootId;
  state.uptime.reset();
  state.busyTicks.reset();
  state.packages.reset();
  state.processes.clear();
  state.journal = {};
  return true;
}

SampleSummary attribute(State& state, const std::vector<Event>& events, DeviceReader& reader,
                        double now, double cpuWatts, const Limits& limits) {
  SampleSummary summary;
  const double hz = reader.ticksPerSecond();
  const std::optional<double> uptime = reader.uptime();
  const std::optional<uint64_t> busy = reader.busyTicks();
  const std::optional<std::vector<PackageCounter>> packages = reader.packageCounters();

  std::map<int, std::optional<ProcessTimes>> times;
  for (const auto& [pid, p] : state.processes) times[pid] = reader.processTimes(pid);
  for (const Event& e : events) {
    if (!times.count(e.pid)) times[e.pid] = reader.processTimes(e.pid);
  }

  // Work that ran in this interval, per process: what was open when it began...
  std::map<int, std::set<WorkKey>> ran;
  for (auto it = state.processes.begin(); it != state.processes.end();) {
    const std::optional<ProcessTimes>& t = times[it->first];
    if (!t || t->startTicks != it->second.startTicks) {
      it = state.processes.erase(it);  // ended: its last interval's energy is gone with it
      continue;
    }
    for (const IntervalKey& k : it->second.open) ran[it->first].insert({k.bundleId, k.updateType});
    ++it;
  }

  // ...and what started during it.
  const double bootTime = uptime ? now - *uptime : 0;
  std::size_t open = openCount(state);
  for (const Event& e : events) {
    const std::optional<ProcessTimes>& t = times[e.pid];
    if (!t) continue;  // the announcer has ended
    // An event from before the start of the process now holding the pid was sent by an earlier
    // process with that pid.
    if (e.time && uptime &&
        *e.time < bootTime + static_cast<double>(t->startTicks) / hz - kClockSlackSeconds) {
      continue;
    }
    auto it = state.processes.find(e.pid);
    if (it == state.processes.end()) {
      if (e.kind != Event::Kind::kStart) continue;
      if (state.processes.size() >= limits.processes) {
        ++state.overLimit;
        continue;
      }
      it = state.processes.emplace(e.pid, TrackedProcess{t->startTicks, std::nullopt, {}}).first;
    }
    TrackedProcess& p = it->second;
    ++summary.events;
    switch (e.kind) {
      case Event::Kind::kStart: {
        IntervalKey key{e.bundleId, e.updateType, e.seqNum};
        if (!p.open.count(key)) {
          if (open >= limits.openIntervals) {
            ++state.overLimit;
            break;
          }
          p.open.insert(std::move(key));
          ++open;
        }
        ran[e.pid].insert({e.bundleId, e.updateType});
        break;
      }
      case Event::Kind::kStop:
        open -= p.open.erase({e.bundleId, e.updateType, e.seqNum});
        break;
      case Event::Kind::kStopAll:
        open -= p.open.size();
        p.open.clear();
        break;
    }
  }

  // CPU time of each process that ran work in this interval.
  std::map<int, double> cpu;
  double cpuSum = 0;
  for (auto& [pid, p] : state.processes) {
    const ProcessTimes& t = *times[pid];
    std::optional<uint64_t> used;
    if (p.cpuTicks) {
      used = t.cpuTicks >= *p.cpuTicks ? t.cpuTicks - *p.cpuTicks : 0;
    } else if (state.uptime && static_cast<double>(t.startTicks) / hz >= *state.uptime) {
      used = t.cpuTicks;  // began after the previous sample: all of its time is in this interval
    }
    p.cpuTicks = t.cpuTicks;
    if (used && ran.count(pid)) {
      cpu[pid] = static_cast<double>(*used);
      cpuSum += static_cast<double>(*used);
    }
  }

  // Energy per CPU tick of the processes, in mWh.
  const bool packageReadable = packages && busy;
  const bool firstSample = !state.uptime && !state.busyTicks && !state.packages;
  std::optional<double> energy =
      packageReadable ? packageIncrease(state.packages, *packages) : std::nullopt;
  double mwhPerTick = cpuWatts / hz / kJoulesPerMilliwattHour;
  summary.model = Model::kCpuWatts;
  if (energy && state.busyTicks) {
    summary.model = Model::kPackage;
    // Shares never add up to more than the whole, even when the process and machine counters
    // were read a tick apart.
    const double busyUsed =
        *busy >= *state.busyTicks ? static_cast<double>(*busy - *state.busyTicks) : 0.0;
    const double denominator = std::max(busyUsed, cpuSum);
    mwhPerTick = denominator > 0 ? *energy / denominator / kMicrojoulesPerMilliwattHour : 0;
  } else if (packageReadable && firstSample) {
    summary.model = Model::kPackage;  // nothing to attribute yet; say what the next sample uses
  }

  for (const auto& [pid, ticks] : cpu) {
    const std::set<WorkKey>& work = ran[pid];
    const double share = ticks * mwhPerTick / static_cast<double>(work.size());
    for (const WorkKey& key : work) {
      auto total = state.totals.find(key);
      if (total == state.totals.end()) {
        if (state.totals.size() >= limits.totals) {
          ++state.overLimit;
          continue;
        }
        total = state.totals.emplace(key, 0.0).first;
      }
      total->second += share;
      summary.attributedMwh += share;
    }
  }

  state.uptime = uptime;
  state.busyTicks = busy;
  if (packages) {
    state.packages.emplace();
    for (const PackageCounter& c : *packages) (*state.packages)[c.zone] = c.energyUj;
  } else {
    state.packages.reset();
  }
  return summary;
}

}  // namespace kelo::powerd
