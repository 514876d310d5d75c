// A power monitor for the simulated day: it meters the background work that the energy service
// reports as started and stopped, at a per-application rate, and reports each application's
// cumulative energy per update type since its reference date, as a device's power daemon would.
#ifndef KELO_TOOLS_KELOSIM_SIMPOWERMONITOR_H_
#define KELO_TOOLS_KELOSIM_SIMPOWERMONITOR_H_

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>

#include "kelo/Overrides.h"

namespace kelo::sim {

class SimPowerMonitor : public platform::PowerMonitor {
 public:
  // `clock` gives the simulated time; `capacity` is the battery capacity it reports.
  SimPowerMonitor(std::function<double()> clock, double capacity);

  void logEvent(const char* bundleId, int16_t type, uint64_t seqNum, int32_t kind) override;
  void stopAllEvents() override;
  std::optional<Value> reportEnergy(const void* selector) override;

  // The rate (mW) at which work of `app` and `type` consumes energy.
  void setRate(const std::string& app, int16_t type, double milliwatts);
  // The simulated times at which the work of sequence number `seqNum` starts and stops. Such
  // work is metered between those times, however late its events reach the monitor; other
  // work between the arrivals of its events.
  void plan(uint64_t seqNum, double start, double stop);
  // Restarts the counters: a new reference date, every cumulative amount back to zero.
  void restartCounters();

  int64_t events() const;
  double referenceDate() const;

 private:
  using Key = std::tuple<std::string, int16_t>;
  struct Running {
    double since;
    Key key;
  };

  std::function<double()> clock_;
  const double capacity_;
  mutable std::mutex mutex_;
  double referenceDate_;                                   // mutex_
  std::map<Key, double> rates_;                            // mutex_
  std::map<Key, double> cumulative_;                       // mutex_, milliwatt-hours
  std::map<uint64_t, Running> running_;                    // mutex_, by sequence number
  std::map<uint64_t, std::pair<double, double>> planned_;  // mutex_, by sequence number
  int64_t events_ = 0;                                     // mutex_
};

}  // namespace kelo::sim

#endif  // KELO_TOOLS_KELOSIM_SIMPOWERMONITOR_H_
