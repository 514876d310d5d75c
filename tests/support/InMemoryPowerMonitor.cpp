#include "tests/support/InMemoryPowerMonitor.h"

#include <utility>

namespace kelo::test {

Value InMemoryPowerMonitor::entry(const Entry& e) {
  Value::Dictionary d;
  d.emplace("bundleID", Value::string(e.bundleId));
  d.emplace("updateType", Value::integer(e.type));
  d.emplace("energy_mWh", Value::real(e.energy));
  return Value::dictionary(std::move(d));
}

Value InMemoryPowerMonitor::report(std::optional<double> capacity,
                                   std::optional<double> referenceDate,
                                   const std::vector<Entry>& entries) {
  Value::Array items;
  items.reserve(entries.size());
  for (const Entry& e : entries) items.push_back(entry(e));
  return rawReport(capacity, referenceDate, std::move(items));
}

Value InMemoryPowerMonitor::rawReport(std::optional<double> capacity,
                                      std::optional<double> referenceDate,
                                      Value::Array rawEntries) {
  Value::Dictionary d;
  if (capacity) d.emplace("BLMBatteryCapacity", Value::real(*capacity));
  if (referenceDate) d.emplace("BLMEnergyReferenceDate", Value::date(*referenceDate));
  d.emplace("BLMEnergyForKelo", Value::array(std::move(rawEntries)));
  return Value::dictionary(std::move(d));
}

void InMemoryPowerMonitor::setReport(std::optional<Value> report) {
  std::lock_guard<std::mutex> lock(mutex_);
  report_ = std::move(report);
}

std::vector<InMemoryPowerMonitor::Event> InMemoryPowerMonitor::events() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

int InMemoryPowerMonitor::reportCalls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return reportCalls_;
}

void InMemoryPowerMonitor::logEvent(const char* bundleId, int16_t type, uint64_t seqNum,
                                    int32_t kind) {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back(Event{bundleId != nullptr ? bundleId : "", type, seqNum, kind});
}

void InMemoryPowerMonitor::stopAllEvents() {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back(Event{"", 0, 0, kStopAll});
}

std::optional<Value> InMemoryPowerMonitor::reportEnergy(const void* /*selector*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++reportCalls_;
  return report_;
}

}  // namespace kelo::test
