#include "tools/kelo-sim/SimPowerMonitor.h"

namespace kelo::sim {

SimPowerMonitor::SimPowerMonitor(std::function<double()> clock, double capacity)
    : clock_(std::move(clock)), capacity_(capacity), referenceDate_(clock_()) {}

void SimPowerMonitor::setRate(const std::string& app, int16_t type, double milliwatts) {
  std::lock_guard<std::mutex> lock(mutex_);
  rates_[{app, type}] = milliwatts;
}

void SimPowerMonitor::plan(uint64_t seqNum, double start, double stop) {
  std::lock_guard<std::mutex> lock(mutex_);
  planned_[seqNum] = {start, stop};
}

void SimPowerMonitor::logEvent(const char* bundleId, int16_t type, uint64_t seqNum, int32_t kind) {
  double now = clock_();
  std::lock_guard<std::mutex> lock(mutex_);
  const auto planned = planned_.find(seqNum);
  if (planned != planned_.end()) {
    now = kind == 1 ? planned->second.first : planned->second.second;
    if (kind != 1) planned_.erase(planned);
  }
  ++events_;
  const Key key{bundleId != nullptr ? bundleId : "", type};
  if (kind == 1) {
    running_[seqNum] = Running{now, key};
    return;
  }
  auto it = running_.find(seqNum);
  if (kind != 2 || it == running_.end()) return;
  // Work that straddles a counter restart counts only from the restart on.
  const double since = std::max(it->second.since, referenceDate_);
  const auto rate = rates_.find(it->second.key);
  const double milliwatts = rate == rates_.end() ? 100.0 : rate->second;
  cumulative_[it->second.key] += milliwatts * std::max(0.0, now - since) / 3600.0;
  running_.erase(it);
}

void SimPowerMonitor::stopAllEvents() {
  std::lock_guard<std::mutex> lock(mutex_);
  running_.clear();
}

std::optional<Value> SimPowerMonitor::reportEnergy(const void*) {
  std::lock_guard<std::mutex> lock(mutex_);
  Value::Array entries;
  for (const auto& [key, energy] : cumulative_) {
    entries.push_back(Value::dictionary({
        {"bundleID", Value::string(std::get<0>(key))},
        {"updateType", Value::integer(std::get<1>(key))},
        {"energy_mWh", Value::real(energy)},
    }));
  }
  return Value::dictionary({
      {"BLMBatteryCapacity", Value::real(capacity_)},
      {"BLMEnergyReferenceDate", Value::date(referenceDate_)},
      {"BLMEnergyForKelo", Value::array(std::move(entries))},
  });
}

void SimPowerMonitor::restartCounters() {
  const double now = clock_();
  std::lock_guard<std::mutex> lock(mutex_);
  referenceDate_ = now;
  cumulative_.clear();
}

int64_t SimPowerMonitor::events() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

double SimPowerMonitor::referenceDate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return referenceDate_;
}

}  // namespace kelo::sim
