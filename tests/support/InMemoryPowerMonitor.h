// A power monitor held in memory: it records the events it is sent, in arrival order, and serves
// the report the test set (or none). Thread-safe; install it through Sandbox::install with
// Overrides::powerMonitor.
#ifndef KELO_TESTS_SUPPORT_INMEMORYPOWERMONITOR_H_
#define KELO_TESTS_SUPPORT_INMEMORYPOWERMONITOR_H_

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kelo/Overrides.h"
#include "kelo/Value.h"

namespace kelo::test {

class InMemoryPowerMonitor : public kelo::platform::PowerMonitor {
 public:
  // What the monitor received. A stop of all events is recorded with kind kStopAll.
  static constexpr int32_t kStopAll = 0;
  struct Event {
    std::string bundleId;
    int16_t type = 0;
    uint64_t seqNum = 0;
    int32_t kind = 0;
    bool operator==(const Event&) const = default;
  };

  // One application's cumulative energy of one update type, as a report lists it.
  struct Entry {
    std::string bundleId;
    int64_t type;
    double energy;
  };

  // A report dictionary of the power-logging service's shape. Absent arguments leave the key out.
  static Value report(std::optional<double> capacity, std::optional<double> referenceDate,
                      const std::vector<Entry>& entries);
  static Value rawReport(std::optional<double> capacity, std::optional<double> referenceDate,
                         Value::Array rawEntries);
  static Value entry(const Entry& e);

  // Every later reportEnergy call serves `report` (nullopt: no report) until the next call.
  void setReport(std::optional<Value> report);

  std::vector<Event> events() const;
  int reportCalls() const;

  void logEvent(const char* bundleId, int16_t type, uint64_t seqNum, int32_t kind) override;
  void stopAllEvents() override;
  std::optional<Value> reportEnergy(const void* selector) override;

 private:
  mutable std::mutex mutex_;
  std::vector<Event> events_;
  std::optional<Value> report_;
  int reportCalls_ = 0;
};

}  // namespace kelo::test

#endif  // KELO_TESTS_SUPPORT_INMEMORYPOWERMONITOR_H_
