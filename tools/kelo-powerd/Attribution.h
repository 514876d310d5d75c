// The attribution of one sample interval: which announced work was running, how much energy
// each announcing process used, and how that energy is shared among its work. Pure apart from
// what it asks of the DeviceReader; the caller brings the journal's events and the time.
//
// The model, per interval between two samples:
//   - Energy of the interval: with package domains, their counters' increase (wrapping at
//     max_energy_range_uj) split over processes by each one's share of the machine's busy CPU
//     time; without them, or when they or the busy time cannot be read, each process's CPU
//     seconds times `cpuWatts` (the CPU-watts model).
//   - A process's energy goes in equal parts to each of its (bundle identifier, update type)
//     pairs that had work open at any moment of the interval: open when the interval began, or
//     started during it. A stop closes the interval of the same bundle, type and sequence number; a
//     stopAll closes all of the process's; the process's exit (its stat gone, or its pid now
//     naming a process that started later) closes them too, and the energy of that last
//     interval is lost with the process.
//   - Energy of a process with no open interval is not attributed; neither is a process's first
//     interval when it was already running at the previous sample but not yet tracked (its CPU
//     time then has no baseline).
#ifndef KELO_TOOLS_KELO_POWERD_ATTRIBUTION_H_
#define KELO_TOOLS_KELO_POWERD_ATTRIBUTION_H_

#include <cstddef>
#include <string>
#include <vector>

#include "tools/kelo-powerd/DeviceReader.h"
#include "tools/kelo-powerd/Events.h"
#include "tools/kelo-powerd/State.h"

namespace kelo::powerd {

// Bounds of the state, whatever the journal holds. Events and attributions beyond them are
// refused and counted in State::overLimit.
struct Limits {
  std::size_t processes = 1024;       // tracked processes
  std::size_t openIntervals = 16384;  // open intervals over all processes
  std::size_t totals = 16384;         // (bundle identifier, update type) entries of the report
};

enum class Model { kPackage, kCpuWatts };
const char* modelName(Model model);  // "package", "cpu-watts"

struct SampleSummary {
  Model model = Model::kCpuWatts;
  double attributedMwh = 0;  // energy attributed in this interval
  std::size_t events = 0;    // events applied
};

// When the device booted since the state's last sample, every counter restarted: the readings,
// tracked processes and journal position of the state are dropped (the totals and the epoch
// stay). Call before reading the journal. True when that happened.
bool noteBoot(State& state, const std::string& bootId);

// Applies `events` (read since the previous sample, oldest first) and attributes the interval
// that ends now, `now` being seconds since 1970. Updates every reading in `state`.
SampleSummary attribute(State& state, const std::vector<Event>& events, DeviceReader& reader,
                        double now, double cpuWatts, const Limits& limits = {});

}  // namespace kelo::powerd

#endif  // KELO_TOOLS_KELO_POWERD_ATTRIBUTION_H_
