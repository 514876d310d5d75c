// What kelo-powerd measures, behind one narrow interface: the attribution reads the device only
// through DeviceReader, so a benchmark or a test can hand it any device. RootReader reads the
// kernel's files under a device root ("/" on a real machine, a fake tree in tests), each through
// the bounded, non-blocking reads of platform/SafeFile.h.
#ifndef KELO_TOOLS_KELO_POWERD_DEVICEREADER_H_
#define KELO_TOOLS_KELO_POWERD_DEVICEREADER_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelo::powerd {

// One top-level powercap package domain at one instant.
struct PackageCounter {
  std::string zone;          // its folder name, e.g. "intel-rapl:0"
  uint64_t energyUj = 0;     // energy_uj
  uint64_t maxEnergyUj = 0;  // max_energy_range_uj: energy_uj wraps to 0 past it
};

// One process at one instant, in clock ticks (ticksPerSecond()).
struct ProcessTimes {
  uint64_t startTicks = 0;  // start time after boot: tells a reused pid from the old process
  uint64_t cpuTicks = 0;    // utime + stime
};

class DeviceReader {
 public:
  virtual ~DeviceReader() = default;
  // Every top-level package domain, or nullopt when there is none or one cannot be read (the
  // attribution then uses the CPU-watts model).
  virtual std::optional<std::vector<PackageCounter>> packageCounters() = 0;
  // Busy CPU time of the whole machine since boot: user + nice + system + irq + softirq + steal.
  virtual std::optional<uint64_t> busyTicks() = 0;
  // Seconds since boot.
  virtual std::optional<double> uptime() = 0;
  // nullopt when the process does not exist (any more) or its times cannot be read.
  virtual std::optional<ProcessTimes> processTimes(int pid) = 0;
  // Design capacity of the first battery in mWh; nullopt without a battery.
  virtual std::optional<double> batteryCapacity() = 0;
  // Changes at every boot; empty when unknown.
  virtual std::string bootId() = 0;
  virtual double ticksPerSecond() = 0;
};

// Reads, under `root`:
//   sys/class/powercap/<zone>/{name,energy_uj,max_energy_range_uj}   zones named "package*" whose
//       folder name has one ':' (top level; subzones are part of their package); two zones of
//       the same name (one package seen through two interfaces) count once
//   proc/stat (first "cpu" line), proc/uptime, proc/<pid>/stat, proc/sys/kernel/random/boot_id
//   sys/class/power_supply/<supply>/{type,energy_full_design,charge_full_design,
//       voltage_min_design}   the first supply, by name, whose type is "Battery"
class RootReader final : public DeviceReader {
 public:
  explicit RootReader(std::string root);

  std::optional<std::vector<PackageCounter>> packageCounters() override;
  std::optional<uint64_t> busyTicks() override;
  std::optional<double> uptime() override;
  std::optional<ProcessTimes> processTimes(int pid) override;
  std::optional<double> batteryCapacity() override;
  std::string bootId() override;
  double ticksPerSecond() override;

 private:
  std::string path(const std::string& relative) const;

  const std::string root_;  // without a trailing slash; empty for "/"
};

// The parsers RootReader applies to each file's text; exposed for the tests of odd content.
std::optional<uint64_t> parseBusyTicks(const std::string& procStat);
std::optional<ProcessTimes> parseProcessStat(const std::string& pidStat);

}  // namespace kelo::powerd

#endif  // KELO_TOOLS_KELO_POWERD_DEVICEREADER_H_
